// The first byte says which reader gets the rest: the lines of a command file, a name to describe,
// a template's choice, or a line of the shell.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "protocol/Describe.h"
#include "protocol/Template.h"
#include "run/CommandLine.h"
#include "shell/Words.h"

namespace {

using namespace Norvctl;

void expect(bool holds) {
  if (!holds) std::abort();
}

// A good line is a command with its request, or an announcement; its request can be shown again.
void readLine(const std::string& line) {
  if (blankLine(line)) return;
  try {
    const Step step = parseCommandLine(line, {true, false});
    expect(step.announcement() || step.request);
    if (step.request) expect(!messageJson(*step.request).empty());
    expect(step.queue.find('\0') == std::string::npos);
  } catch (const Complaint& complaint) {
    expect(!complaint.reason.empty() && complaint.column <= line.size() + 2);
  }
}

// What a template prints can be read again.
void makeTemplate(const std::string& text) {
  TemplateChoice choice;
  const std::size_t first = text.find('\n');
  const RequestInfo* info = requestInfo(text.substr(0, first));
  if (!info || first == std::string::npos) return;
  const std::string rest = text.substr(first + 1);
  const std::size_t second = std::min(rest.find('\n'), rest.size());
  choice.moduleClass = rest.substr(0, second);
  choice.driver = choice.moduleClass;
  choice.hook = choice.moduleClass;
  if (second < rest.size()) choice.command = rest.substr(second + 1);
  if (info->type == Norv::createModule || info->type == Norv::moduleCommand) {
    choice.driver = choice.hook = "";
  }
  if (info->type == Norv::createPort) choice.moduleClass = choice.hook = "";
  if (info->type == Norv::configureGateHook) choice.moduleClass = choice.driver = "";
  if (!checkChoice(*info, choice).empty()) return;
  const auto message = newRequest(info->type);
  expect(parseRequest(templateJson(*info, choice), message.get()).empty());
  expect(!templateYaml(*info, choice).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  switch (data[0] % 4) {
    case 0:
      for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        readLine(text.substr(at, end - at));
        at = end + 1;
      }
      break;
    case 1: {
      std::string told;
      describe(text, told);
      expect(!told.empty());
      break;
    }
    case 2:
      makeTemplate(text);
      break;
    default: {
      const Words words = wordsOf(text);
      expect(words.complete || !words.words.empty());
    }
  }
  return 0;
}
