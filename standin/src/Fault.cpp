#include <Standin/Fault.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <iomanip>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>

namespace Standin {

namespace {

struct KindName {
  Fault::Kind kind;
  const char* name;
};
constexpr KindName kinds[] = {
    {Fault::Kind::Delay, "delay"},        {Fault::Kind::Status, "status"},
    {Fault::Kind::Error, "error"},        {Fault::Kind::Undecodable, "undecodable"},
    {Fault::Kind::TooLarge, "too-large"}, {Fault::Kind::NoReply, "no-reply"},
    {Fault::Kind::HangUp, "hang-up"},     {Fault::Kind::HangUpAfter, "hang-up-after"},
    {Fault::Kind::Exit, "exit"},          {Fault::Kind::StopAccepting, "stop-accepting"},
};

struct RequestName {
  const char* name;
  const char* rpc;  // As gRPC and its tools write it.
};
constexpr RequestName requests[] = {
#define NORV_REQUEST(number, name, rpc, request, response) {#name, #rpc},
#include <Norv/GrpcRequests.def>
};

[[noreturn]] void complain(const std::string& text) {
  throw std::invalid_argument(text + "; a fault is words such as 'kind=status rpc=createModule " +
                              "nth=3 code=14 text=gone'");
}

Fault::Kind kindNamed(const std::string& name) {
  std::string all;
  for (const KindName& row : kinds) {
    if (name == row.name) return row.kind;
    all += std::string(all.empty() ? "" : ", ") + row.name;
  }
  complain("no kind of fault is called '" + name + "'; there are " + all);
}

std::string requestNamed(const std::string& name) {
  if (name == "*") return name;
  for (const RequestName& request : requests)
    if (name == request.name || name == request.rpc) return request.name;
  complain("no request is called '" + name + "'; give its name as in command files, or *");
}

template <class Number>
void read(const std::string& key, const std::string& value, Number& number) {
  const char* end = value.data() + value.size();
  const auto [at, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc() || at != end) complain("'" + value + "' is no value for " + key);
}

using Words = std::set<std::string>;

// Words that only some kinds have a use for.
void checkKind(const Fault& fault, const Words& given) {
  const bool delay = fault.kind == Fault::Kind::Delay;
  const bool answers = fault.kind == Fault::Kind::Status || fault.kind == Fault::Kind::Error;
  for (const char* word : {"ms", "max-ms"})
    if (!delay && given.count(word) > 0)
      complain(std::string(word) + " is for kind=delay alone; leave it out");
  for (const char* word : {"code", "text"})
    if (!answers && given.count(word) > 0)
      complain(std::string(word) + " is for kind=status and kind=error alone; leave it out");
  if (delay && fault.ms == 0 && fault.maxMs == 0)
    complain("a delay needs its milliseconds, ms=5, or ms=5 max-ms=20");
  if (given.count("code") == 0) return;
  if (fault.kind == Fault::Kind::Status && (fault.code < 1 || fault.code > 16))
    complain("a gRPC status code is from 1 to 16");
  if (fault.kind == Fault::Kind::Error && fault.code == 0)
    complain("the code of an error is not 0, which is none");
}

// What each word allows alone, and they do not together.
void check(const Fault& fault, const Words& given) {
  checkKind(fault, given);
  if (given.count("name") > 0 && fault.name.empty())
    complain("the name is empty; leave it out for any");
  if (given.count("nth") > 0 && fault.nth == 0) complain("nth counts from 1");
  if (given.count("every") > 0 && fault.every == 0) complain("every is 1 or more");
  if (given.count("nth") > 0 && given.count("every") > 0) complain("give nth or every, not both");
  if (!(fault.probability >= 0 && fault.probability <= 1)) complain("a probability is from 0 to 1");
  if (given.count("max-ms") > 0 && fault.maxMs < fault.ms) complain("max-ms is less than ms");
  if (given.count("seed") > 0 && given.count("probability") + given.count("max-ms") == 0)
    complain("seed is for probability and max-ms; leave it out");
}

bool isBlank(int character) {
  return std::isspace(character) != 0;
}

// The value behind a `key=`: up to the next blank, or in quotes where that is a name.
std::string readValue(std::istream& words, const std::string& key) {
  std::string value;
  const int next = words.peek();
  if (key == "text") {
    std::getline(words, value);
  } else if (key == "name" && next == '"') {
    if (!(words >> std::quoted(value)) || (words.peek() != EOF && !isBlank(words.peek())))
      complain("a name in quotes ends with a quote and a blank, as in name=\"my module\"");
  } else if (next != EOF && !isBlank(next)) {
    words >> value;
  }
  return value;
}

template <class Number>
void write(std::ostream& out, const char* key, Number value, Number usual) {
  if (value != usual) out << ' ' << key << '=' << value;
}

}  // namespace

Fault Fault::parse(const std::string& text) {
  Fault fault;
  Words given;
  std::istringstream words(text);
  for (std::string key; std::getline(words >> std::ws, key, '=');) {
    if (words.eof() || std::find_if(key.begin(), key.end(), isBlank) != key.end())
      complain("'" + key.substr(0, key.find_first_of(" \t")) + "' is no key=value");
    const std::string value = readValue(words, key);
    if (!given.insert(key).second) complain(key + " is given twice");
    if (key == "text") {
      fault.text = value;
    } else if (key == "kind") {
      fault.kind = kindNamed(value);
    } else if (key == "rpc") {
      fault.rpc = requestNamed(value);
    } else if (key == "name") {
      fault.name = value;
    } else if (key == "nth") {
      read(key, value, fault.nth);
    } else if (key == "every") {
      read(key, value, fault.every);
    } else if (key == "probability") {
      read(key, value, fault.probability);
    } else if (key == "seed") {
      read(key, value, fault.seed);
    } else if (key == "ms") {
      read(key, value, fault.ms);
    } else if (key == "max-ms") {
      read(key, value, fault.maxMs);
    } else if (key == "code") {
      read(key, value, fault.code);
    } else {
      complain("no word is called '" + key + "'");
    }
  }
  if (given.count("kind") == 0) complain("'" + text + "' has no kind");
  check(fault, given);
  return fault;
}

std::string Fault::toString() const {
  std::ostringstream out;
  for (const KindName& row : kinds)
    if (row.kind == kind) out << "kind=" << row.name;
  out << " rpc=" << rpc;
  if (!name.empty() && name[0] != '"' &&
      std::find_if(name.begin(), name.end(), isBlank) == name.end())
    out << " name=" << name;
  else if (!name.empty())
    out << " name=" << std::quoted(name);
  write<std::uint64_t>(out, "nth", nth, 0);
  write<std::uint64_t>(out, "every", every, 0);
  write(out, "probability", probability, 1.0);
  write<std::uint64_t>(out, "seed", seed, 0);
  write<std::uint32_t>(out, "ms", ms, 0);
  write<std::uint32_t>(out, "max-ms", maxMs, 0);
  write(out, "code", code, 0);
  if (!text.empty()) out << " text=" << text;
  return out.str();
}

}  // namespace Standin
