#include <Standin/Fault.h>

#include <charconv>
#include <iterator>
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

constexpr const char* requests[] = {
#define NORV_REQUEST(number, name, rpc, request, response) #name,
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
  for (const char* request : requests)
    if (name == request) return name;
  complain("no request is called '" + name + "'");
}

template <class Number>
void read(const std::string& key, const std::string& value, Number& number) {
  const char* end = value.data() + value.size();
  const auto [at, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc() || at != end) complain("'" + value + "' is no value for " + key);
}

// What each word allows alone, and they do not together.
void check(const Fault& fault) {
  if (!(fault.probability >= 0 && fault.probability <= 1)) complain("a probability is from 0 to 1");
  if (fault.maxMs != 0 && fault.maxMs < fault.ms) complain("max-ms is less than ms");
  if (fault.kind == Fault::Kind::Status && (fault.code < 0 || fault.code > 16))
    complain("a gRPC status code is from 1 to 16");
}

template <class Number>
void write(std::ostream& out, const char* key, Number value, Number usual) {
  if (value != usual) out << ' ' << key << '=' << value;
}

}  // namespace

Fault Fault::parse(const std::string& text) {
  Fault fault;
  bool kindGiven = false;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) complain("'" + word + "' is no key=value");
    const std::string key = word.substr(0, equals), value = word.substr(equals + 1);
    if (key == "text") {
      std::string rest;
      std::getline(words, rest);
      fault.text = value + rest;
    } else if (key == "kind") {
      fault.kind = kindNamed(value);
      kindGiven = true;
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
  if (!kindGiven) complain("'" + text + "' has no kind");
  check(fault);
  return fault;
}

std::string Fault::toString() const {
  std::ostringstream out;
  for (const KindName& row : kinds)
    if (row.kind == kind) out << "kind=" << row.name;
  out << " rpc=" << rpc;
  if (!name.empty()) out << " name=" << name;
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
