#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "../look/Direct.h"

namespace CLI {
class App;
}

namespace Norvctl {

// What may stand at the end of a line of the shell: verbs, types, options, fields, and the names of
// what is in the switch.
class Completer {
 public:
  Completer(const CLI::App& app, const std::string& host, U16 port);

  // The words that begin with what stands at the end of `line`, behind the last break.
  std::vector<std::string> candidates(const std::string& line);
  // Where that begins.
  static std::size_t wordStart(const std::string& line);

 private:
  std::vector<std::string> firstWords() const;
  std::vector<std::string> optionWords(const std::string& verb, const std::string& before) const;
  std::vector<std::string> jsonWords(const std::string& line, const std::string& type);
  std::vector<std::string> valuesOf(const std::string& key);
  const std::vector<std::string>& live(const std::string& what,
                                       std::vector<std::string> (*read)(Direct&));

  const CLI::App& app_;
  Direct direct_;
  struct Known {
    std::vector<std::string> names;
    std::chrono::steady_clock::time_point at;
  };
  std::map<std::string, Known> known_;
};

}  // namespace Norvctl
