#include "Memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include <Norv/State/Files.h>
#include <Norv/State/Record.h>

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

}  // namespace

Memory::Memory(const std::string& folder, const std::string& address)
    : folder_(folder), name_(std::filesystem::path(Norv::State::recordName(address)).stem()) {}

std::string Memory::file(const std::string& purpose) const {
  return kept() ? folder_ + "/" + name_ + "." + purpose : "";
}

bool Memory::lock() {
  if (!kept()) return true;
  std::error_code ignored;  // what fails shows with the file
  std::filesystem::create_directories(folder_, ignored);
  const std::string name = file("lock");
  lock_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock_ < 0) {
    attempt([&] { Norv::State::failFile("cannot write", name); });
    return true;
  }
  return flock(lock_, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

void Memory::load() {
  const std::string name = file("norvd");
  const auto text = kept() ? contents(name) : std::nullopt;
  if (!text) return;
  try {
    const Json json = Json::parse(*text);
    if (json.at("format") != format) throw std::runtime_error("another format");
    starts = json.at("starts");
    for (const Json& one : json.at("failures")) {
      failures_.push_back({timeOf(one.at("time")), one.at("text")});
    }
    for (const Json& one : json.at("deaths")) {
      deaths[one.at("object")] = {one.at("value"), one.at("times"), one.at("text"),
                                  timeOf(one.at("last"))};
    }
  } catch (const std::exception& error) {
    starts = 0;
    failures_.clear();
    deaths.clear();
    const std::string aside = name + ".damaged";
    std::rename(name.c_str(), aside.c_str());
    log(Level::warning, "memory: " + name + " cannot be used (" + error.what() +
                            ") and lies aside as " + aside + "; starting with an empty one");
  }
}

void Memory::save() {
  if (!kept()) return;
  Json json;
  json["format"] = format;
  json["starts"] = starts;
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
  attempt([&] { Norv::State::replaceFile(file("norvd"), text); });
}

std::optional<std::string> Memory::lastGood() const {
  return kept() ? contents(file("wanted.yaml")) : std::nullopt;
}

void Memory::lastGoodIs(const std::string& document) {
  if (!kept() || lastGood() == document) return;
  attempt([&] { Norv::State::replaceFile(file("wanted.yaml"), document); });
}

void Memory::failureIs(const std::string& text) {
  failures_.push_back({std::chrono::system_clock::now(), text});
  if (failures_.size() > mostFailures) failures_.erase(failures_.begin());
}

void Memory::troubleIs(const std::string& text) {
  if (text.empty() == trouble_.empty()) {
    trouble_ = text;
    return;
  }
  trouble_ = text;
  if (text.empty()) {
    log(Level::notice, "memory: can be written again");
  } else {
    log(Level::error, "memory: " + text +
                          "; going on without, make room or choose another "
                          "--state-dir");
  }
}

}  // namespace Norvd
