#include "Memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include <Norv/State/Files.h>
#include <Norv/State/Record.h>

#include "agent/ObjectNames.h"

namespace Norvd {

namespace {

using Json = nlohmann::ordered_json;

constexpr int format = 1;
constexpr std::size_t mostFailures = 10;

std::int64_t secondsOf(WallTime time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}
WallTime timeOf(const Json& seconds) {
  return WallTime(std::chrono::seconds(seconds.get<std::int64_t>()));
}

std::optional<std::string> contents(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream.is_open()) return {};
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

// With a last line to know the others by: part of a document would be another document.
std::string sealed(const std::string& document) {
  return document + "# " + Norvctl::fingerprint(document) + "\n";
}
constexpr std::size_t sealSize = 2 + 16 + 1;

}  // namespace

Memory::Memory(const std::string& folder, const std::string& address)
    : folder_(folder),
      name_(std::filesystem::path(Norv::State::recordName(address)).stem()),
      lock_(folder, address, Norv::State::keepingProgram) {}

std::string Memory::file(const std::string& purpose) const {
  return kept() ? folder_ + "/" + name_ + "." + purpose : "";
}

std::string Memory::lock() {
  if (!kept()) return "";
  std::string why;
  bool said = false;
  attempt("lock", [&] {
    lock_.take([&](const Norv::State::SwitchLock::Holder& holder) {
      if (holder.program != Norv::State::applyingProgram) {
        why = text(holder) + " has it, by " + lock_.file();
        return false;
      }
      if (!std::exchange(said, true)) {
        log(Level::notice,
            "memory: " + text(holder) + " is at work on the switch; waiting for its end");
      }
      return true;
    });
  });
  return why;
}

void Memory::load() {
  const std::string name = file("norvd");
  const auto text = kept() ? contents(name) : std::nullopt;
  if (!text) return;
  try {
    const Json json = Json::parse(*text);
    if (json.at("format") != format) throw std::runtime_error("another format");
    starts = json.at("starts");
    lost = json.value("lost", "");
    for (const Json& one : json.at("failures")) {
      failures_.push_back({timeOf(one.at("time")), one.at("text")});
    }
    for (const Json& one : json.at("deaths")) {
      deaths[one.at("object")] = {one.at("value"), one.at("times"), one.at("text"),
                                  timeOf(one.at("last"))};
    }
  } catch (const std::exception& error) {
    starts = 0;
    lost.clear();
    failures_.clear();
    deaths.clear();
    setAside("norvd", error.what());
  }
}

void Memory::setAside(const std::string& purpose, const std::string& why) {
  const std::string name = file(purpose), aside = name + ".damaged";
  attempt(purpose, [&] {
    if (std::rename(name.c_str(), aside.c_str()) != 0) Norv::State::failFile("cannot rename", name);
    log(Level::warning, "memory: " + name + " cannot be used (" + why + ") and lies aside as " +
                            aside + "; going on without");
  });
}

void Memory::save() {
  if (!kept()) return;
  Json json;
  json["format"] = format;
  json["starts"] = starts;
  json["lost"] = lost;
  json["failures"] = Json::array();
  for (const Event& one : failures_) {
    json["failures"].push_back({{"time", secondsOf(one.time)}, {"text", one.text}});
  }
  json["deaths"] = Json::array();
  for (const auto& [object, one] : deaths) {
    json["deaths"].push_back({{"object", object},
                              {"value", one.value},
                              {"times", one.times},
                              {"text", one.text},
                              {"last", secondsOf(one.last)}});
  }
  const std::string text = json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
  attempt("norvd", [&] { Norv::State::replaceFile(file("norvd"), text); });
}

std::optional<std::string> Memory::lastGood() {
  const auto text = kept() ? contents(file("wanted.yaml")) : std::nullopt;
  if (!text) return {};
  const std::string document = text->substr(0, text->size() - std::min(text->size(), sealSize));
  if (sealed(document) == *text) return document;
  setAside("wanted.yaml", "its last line does not fit the others");
  return {};
}

void Memory::lastGoodIs(const std::string& document) {
  if (!kept()) return;
  attempt("wanted.yaml", [&] {
    if (lastGood() == document) return;
    Norv::State::replaceFile(file("wanted.yaml"), sealed(document));
  });
}

void Memory::failureIs(const std::string& text) {
  failures_.push_back({std::chrono::system_clock::now(), text});
  if (failures_.size() > mostFailures) failures_.erase(failures_.begin());
}

void Memory::troubleIs(const std::string& purpose, const std::string& text) {
  const auto before = troubles_.find(purpose);
  if (text.empty()) {
    if (before == troubles_.end()) return;
    troubles_.erase(before);
    log(Level::notice, "memory: " + file(purpose) + " is in order again");
  } else if (before == troubles_.end() || before->second != text) {
    troubles_[purpose] = text;
    log(Level::error,
        "memory: " + text +
            "; going on without; make room, give norvd the right to it, or choose another "
            "--state-dir");
  }
}

// --- recordings ---------------------------------------------------------------------------------

// The files of each, by its number.
std::map<unsigned, std::vector<std::string>> Memory::recordings(const std::string& purpose) const {
  std::map<unsigned, std::vector<std::string>> found;
  const std::string prefix = name_ + "." + purpose + ".failure-";
  std::error_code error;
  std::filesystem::directory_iterator entry(folder_, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (!name.starts_with(prefix)) continue;
    unsigned number = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, wrong] = std::from_chars(name.data() + prefix.size(), end, number);
    const std::string_view tail(rest, static_cast<std::size_t>(end - rest));
    if (wrong == std::errc() && (tail.empty() || tail == ".json")) {
      found[number].push_back(entry->path());
    }
  }
  return found;
}

void Memory::keepRecording(const std::string& purpose, const std::string& reason) const {
  const auto former = recordings(purpose);
  const unsigned number = former.empty() ? 1 : former.rbegin()->first + 1;
  const std::string copy = file(purpose) + ".failure-" + std::to_string(number);
  if (std::rename(file(purpose).c_str(), copy.c_str()) != 0) return;
  Json details;
  details["time"] = text(std::chrono::system_clock::now());
  details["command"] = nullptr;
  details["reason"] = reason;
  const std::string text = details.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  Norv::State::replaceFile(copy + ".json", text);
}

void Memory::removeOldRecordings(const std::string& purpose, std::size_t kept) const {
  auto all = recordings(purpose);
  while (all.size() > kept) {
    for (const std::string& file : all.begin()->second) std::remove(file.c_str());
    all.erase(all.begin());
  }
}

// --- what is asked by hand ----------------------------------------------------------------------

// A file with a line for each object. Whoever reads or writes it holds its lock, so that no line is
// lost between being written and being read.
std::vector<std::string> Memory::takeRetries() {
  const std::string name = file("retry");
  if (name.empty()) return {};
  const int descriptor = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) {
    const bool there = errno != ENOENT;
    attempt("retry", [&] {
      if (there) Norv::State::failFile("cannot read", name);
    });
    return {};
  }
  std::vector<std::string> objects;
  if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
    std::istringstream lines(contents(name).value_or(""));
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty()) objects.push_back(line);
    }
    attempt("retry", [&] {
      if (std::remove(name.c_str()) == 0) return;
      objects.clear();  // they would come for ever
      Norv::State::failFile("cannot remove", name);
    });
  }
  close(descriptor);
  return objects;
}

}  // namespace Norvd
