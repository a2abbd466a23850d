// A daemon that answers what it is told on its command line, for tests of programs that drive one.
//
//   scripted_daemon ANSWER...    one answer per call in order; all later calls succeed
//
//   ok             an empty response
//   error=CODE     a response that carries this error
//   status=CODE    this gRPC status
//   garbage        bytes that are no message
//   big=BYTES      a getVersion response with a version of so many letters
//   hold           no answer until the daemon ends
//   wait           an empty response once a line has come on standard input, one for each such call
//   wait-status=CODE, wait-garbage     the same with these answers
//
// Writes "port N", then "call TYPE" for each call as it arrives. Ends when its standard input does.

#include <support/FakeDaemon.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

namespace {

using google::protobuf::Message;
using support::FakeDaemon;

struct Instruction {
  std::string word;
  int number = 0;
  bool waits = false;
};

// The lines that have come on standard input and have not been waited for.
class Lines {
 public:
  void wait() {
    std::unique_lock lock(mutex_);
    came_.wait(lock, [this] { return count_ != 0; });
    --count_;
  }
  void add() {
    const std::lock_guard guard(mutex_);
    ++count_;
    came_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable came_;
  int count_ = 0;
};

Instruction parse(const std::string& text) {
  const std::size_t sign = text.find('=');
  Instruction instruction{text.substr(0, sign)};
  if (sign != std::string::npos) instruction.number = std::stoi(text.substr(sign + 1));
  if (instruction.word.starts_with("wait")) {
    instruction.waits = true;
    instruction.word.erase(0, std::string_view("wait-").size());
    if (instruction.word.empty()) instruction.word = "ok";
  }
  for (const char* known : {"ok", "error", "status", "garbage", "big", "hold"}) {
    if (instruction.word == known) return instruction;
  }
  throw std::invalid_argument("no such answer: " + text);
}

void setError(Message* response, int code) {
  const auto* field = response->GetDescriptor()->FindFieldByName("error");
  if (!field) throw std::invalid_argument(response->GetTypeName() + " carries no error");
  bess::pb::Error error;
  error.set_code(code);
  error.set_errmsg("as the test told it");
  response->GetReflection()->MutableMessage(response, field)->CopyFrom(error);
}

FakeDaemon::Answer carryOut(const Instruction& instruction, Message* response) {
  if (instruction.word == "error") setError(response, instruction.number);
  if (instruction.word == "status") return {instruction.number, "as the test told it", ""};
  // A field of length 127 of which nothing follows.
  if (instruction.word == "garbage") return {0, "", "\x0a\x7f"};
  if (instruction.word == "big") {
    bess::pb::VersionResponse version;
    version.set_version(std::string(static_cast<std::size_t>(instruction.number), 'v'));
    return {0, "", version.SerializeAsString()};
  }
  return {};
}

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

int serve(const std::vector<Instruction>& script) {
  FakeDaemon daemon;
  Lines lines;
  Lines never;
  std::mutex mutex;
  std::size_t next = 0;
  daemon.handlerIs([&](Norv::GrpcRequestType type, const Message&, Message* response) {
    Instruction instruction{"ok"};
    {
      std::lock_guard guard(mutex);
      say(std::string("call ") + stringValue(type).charPtr());
      if (next < script.size()) instruction = script[next++];
    }
    if (instruction.word == "hold") never.wait();
    if (instruction.waits) lines.wait();
    return carryOut(instruction, response);
  });
  say("port " + std::to_string(daemon.port()));
  for (std::string line; std::getline(std::cin, line);) lines.add();
  std::quick_exit(0);  // A held call is never answered, so the server has no orderly end.
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<Instruction> script;
    for (int i = 1; i < argc; ++i) script.push_back(parse(argv[i]));
    return serve(script);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "scripted_daemon: %s\n", error.what());
    return 1;
  }
}
