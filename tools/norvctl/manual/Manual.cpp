// The verbs help and man: what the program tells of itself, from the table of verbs and their
// options.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <string_view>

#include "../Verb.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Options.h"
#include "Version.h"
#include "manual/CommandFilesText.h"

namespace Norvctl {

namespace {

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Text for roff: a hyphen is one, a backslash is shown, a dot at the start of a line too.
std::string roff(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else if (c == '\'') {
      out += "\\(aq";
    } else {
      if (c == '.' && (out.empty() || out.back() == '\n')) out += "\\&";
      out += c;
    }
  }
  return out;
}

std::string heading(const std::string& title) {
  return ".TH " + roff(title) + " 1 \"\" \"norv " + version + "\" \"User Commands\"\n";
}

std::string optionPart(const CLI::App& command) {
  std::string positional;
  std::string options;
  for (const OptionText& one : optionsOf(command)) {
    std::string about = one.about;
    if (!one.usual.empty() && one.usual != "[]") about += " (usually " + one.usual + ")";
    if (one.names.empty()) {
      positional += ".TP\n\\fI" + roff(one.value) + "\\fR\n" + roff(about) + "\n";
      continue;
    }
    std::string names;
    for (const std::string& name : one.names) {
      names += (names.empty() ? "" : ", ") + ("\\fB" + roff(name) + "\\fR");
    }
    if (!one.value.empty()) names += " \\fI" + roff(one.value) + "\\fR";
    options += ".TP\n" + names + "\n" + roff(about) + "\n";
  }
  return (positional.empty() ? "" : ".SH ARGUMENTS\n" + positional) + ".SH OPTIONS\n" + options;
}

std::string usageLine(const CLI::App& command) {
  std::string line;
  for (const OptionText& one : optionsOf(command)) {
    if (!one.names.empty()) continue;
    const std::string value = "\\fI" + roff(one.value) + "\\fR" + (one.repeated ? "..." : "");
    line += one.required ? " " + value : " [" + value + "]";
  }
  return line;
}

std::string pageOf(const Verb& one, const CLI::App& command) {
  const std::string name = "norvctl-" + one.name;
  std::string page = heading(upper(name));
  page += ".SH NAME\n" + roff(name) + " \\- " + roff(one.summary) + "\n";
  page += ".SH SYNOPSIS\n\\fBnorvctl " + roff(one.name) + "\\fR [\\fIOPTIONS\\fR]" +
          usageLine(command) + "\n.SH DESCRIPTION\n";
  for (std::size_t i = 0; i < one.description.size(); ++i) {
    page += (i == 0 ? "" : ".PP\n") + roff(one.description[i]) + "\n";
  }
  page += optionPart(command);
  if (!one.examples.empty()) {
    page += ".SH EXAMPLES\n";
    for (const Example& example : one.examples) {
      page += ".TP\n\\fB" + roff(example.command) + "\\fR\n" + roff(example.what) + "\n";
    }
  }
  page += ".SH EXIT STATUS\n" + roff(std::string(exitStatusText).substr(13)) + "\n";
  return page + ".SH SEE ALSO\n\\fBnorvctl\\fR(1)\n";
}

std::string mainPage(const CLI::App& app) {
  std::string page = heading("NORVCTL");
  page += ".SH NAME\nnorvctl \\- drive and look at a switch daemon\n";
  page += ".SH SYNOPSIS\n\\fBnorvctl\\fR \\fIVERB\\fR [\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]\n";
  page += ".SH DESCRIPTION\n" + roff(app.get_description()) + "\n.SH VERBS\n";
  for (const Verb& one : verbs()) {
    page += ".TP\n\\fB" + roff(one.name) + "\\fR\n" + roff(one.summary) + "; see norvctl\\-" +
            roff(one.name) + "(1)\n";
  }
  page += optionPart(app);
  page +=
      ".SH ENVIRONMENT\n.TP\n\\fBNORV_HOST\\fR, \\fBNORV_PORT\\fR\nthe daemon's host and port "
      "where "
      "\\-\\-host and \\-\\-port are not given\n.TP\n\\fBNORV_TIMEOUT\\fR\nseconds, where "
      "\\-\\-timeout is not given\n.TP\n\\fBNORV_AGENT\\fR\nwhere norvd shows its pages, "
      "for `status`, where \\-\\-agent is not given\n.TP\n\\fBNORV_AGENT_STATE\\fR\nits state "
      "folder, for `retry`, where \\-\\-state\\-dir is not given\n.TP\n\\fBNO_COLOR\\fR\nif set "
      "and not empty, nothing is coloured\n.TP\n\\fBhttp_proxy\\fR, \\fBno_proxy\\fR\nas gRPC "
      "takes them; the loopback "
      "never "
      "goes through a proxy\n.TP\n\\fBSIMULATION_NORV\\fR\nif set, nothing would be sent: verbs "
      "that "
      "send refuse to\n.TP\n\\fBLUMO_TRACE\\fR\nthe trace setting, as \\-\\-trace\n";
  return page + ".SH EXIT STATUS\n" + roff(std::string(exitStatusText).substr(13)) + "\n";
}

std::string filesText() {
  return {reinterpret_cast<const char*>(commandFilesText), commandFilesTextSize};
}

int writePage(const std::string& folder, const std::string& name, const std::string& page) {
  const std::string path = folder + "/" + name + ".1";
  std::FILE* file = std::fopen(path.c_str(), "w");
  const bool written = file && std::fputs(page.c_str(), file) >= 0;
  if (file && std::fclose(file) == 0 && written) return allOk;
  std::cerr << "norvctl: cannot write " << path << '\n';
  return badInput;
}

int writeAll(const std::string& folder) {
  std::map<std::string, Action> actions;
  const auto app = makeApp(actions);
  int status = writePage(folder, "norvctl", mainPage(*app));
  for (const Verb& one : verbs()) {
    status = std::max(status, writePage(folder, "norvctl-" + one.name,
                                        pageOf(one, *app->get_subcommand(one.name))));
  }
  return status;
}

std::vector<std::string> verbNames() {
  std::vector<std::string> names;
  for (const Verb& one : verbs()) names.push_back(one.name);
  return names;
}

int unknownVerb(const std::string& name) {
  std::cerr << "norvctl: unknown verb \"" << escaped(name) << "\"; the nearest is \""
            << nearest(name, verbNames()) << "\"\n";
  return badInput;
}

Action defineHelp(CLI::App& command) {
  const auto topic = std::make_shared<std::string>();
  std::vector<std::string> words = verbNames();
  words.push_back("files");
  completes(
      command.add_option("TOPIC", *topic, "a verb, or `files` for the grammar of command files"),
      words);
  return [topic] {
    std::map<std::string, Action> actions;
    const auto app = makeApp(actions);
    if (*topic == "files") {
      print(filesText());
      return allOk;
    }
    if (topic->empty()) {
      print(app->help());
      return allOk;
    }
    const Verb* one = verb(*topic);
    if (!one) return static_cast<ExitStatus>(unknownVerb(*topic));
    for (const std::string& paragraph : one->description) print(paragraph + "\n\n");
    print(app->get_subcommand(one->name)->help("norvctl"));
    return allOk;
  };
}

Action defineMan(CLI::App& command) {
  struct Arguments {
    std::string name;
    std::string folder;
  };
  const auto arguments = std::make_shared<Arguments>();
  completes(
      command.add_option("VERB", arguments->name, "a verb; the program's own page without it"),
      verbNames());
  command.add_option("--into", arguments->folder, "write all pages into this FOLDER")
      ->type_name("FOLDER");
  return [arguments] {
    if (!arguments->folder.empty()) return writeAll(arguments->folder);
    std::map<std::string, Action> actions;
    const auto app = makeApp(actions);
    if (arguments->name.empty()) {
      print(mainPage(*app));
      return static_cast<int>(allOk);
    }
    const Verb* one = verb(arguments->name);
    if (!one) return unknownVerb(arguments->name);
    print(pageOf(*one, *app->get_subcommand(one->name)));
    return static_cast<int>(allOk);
  };
}

}  // namespace

Verb helpVerb() {
  return {"help",
          "tell how a verb is used, or how command files are written",
          {"Prints what a verb does and takes. `norvctl help files` prints the grammar of command "
           "files."},
          {{"norvctl help run", "all about run"}, {"norvctl help files", "the grammar"}},
          &defineHelp};
}

Verb manVerb() {
  return {"man",
          "print a manual page",
          {"Prints a manual page in roff, for man -l; an installation has them all."},
          {{"norvctl man show | man -l -", "a page, read at once"}},
          &defineMan};
}

}  // namespace Norvctl
