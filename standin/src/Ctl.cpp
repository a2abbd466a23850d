#include "Ctl.h"

#include <fcntl.h>
#include <grpcpp/grpcpp.h>
#include <standin/control.grpc.pb.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include <Lumo/PrivateFile.h>

#include "ContentOf.h"

namespace Standin {

namespace {

// Calls one request of the control service and answers what it answers.
template <class Request, class Response>
Response ask(standin::Control::Stub& stub, const std::string& address,
             grpc::Status (standin::Control::Stub::*rpc)(grpc::ClientContext*, const Request&,
                                                         Response*),
             const Request& request) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
  Response response;
  const grpc::Status status = (stub.*rpc)(&context, request, &response);
  if (status.error_code() == grpc::StatusCode::UNAVAILABLE)
    throw std::runtime_error("nothing answers at " + address +
                             "; start the stand-in with --control " + address);
  if (status.error_code() == grpc::StatusCode::UNIMPLEMENTED)
    throw std::runtime_error("what answers at " + address +
                             " cannot be controlled; give the address that the stand-in prints "
                             "as `controlled at`");
  if (!status.ok())
    throw std::runtime_error(status.error_message().empty()
                                 ? "what answers at " + address + " failed the call with status " +
                                       std::to_string(status.error_code()) + " and said no more"
                                 : status.error_message());
  return response;
}

void show(const standin::Faults& faults) {
  for (const auto& fault : faults.faults())
    std::cout << fault.injected() << " of " << fault.matched() << "  " << fault.rule() << '\n';
}

void show(const standin::Pace& pace) {
  std::cout << "latency " << pace.latency() << " ms, rate ";
  if (pace.rate() == 0)
    std::cout << "unlimited\n";
  else
    std::cout << pace.rate() << " per second\n";
}

void writeFile(const std::string& path, const std::string& text) {
  try {
    std::FILE* const out = ::fdopen(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), "w");
    const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    const bool closed = std::fclose(out) == 0;
    if (!written || !closed) throw std::runtime_error(std::strerror(errno));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("cannot write the dump to " + path + ": " + error.what());
  }
}

double number(const std::string& text) {
  double value = 0;
  const auto [at, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || at != text.data() + text.size())
    throw std::runtime_error("'" + text + "' is no number");
  return value;
}

}  // namespace

int control(const std::string& address, const std::vector<std::string>& words) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetMaxReceiveMessageSize(-1);
  const auto stub = standin::Control::NewStub(
      grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
  using Stub = standin::Control::Stub;
  const std::string command = words.empty() ? "faults" : words.front();
  const bool file = words.size() == 2;
  if (command == "faults" && words.size() < 2) {
    show(ask(*stub, address, &Stub::ListFaults, standin::Nothing()));
  } else if (command == "add" && words.size() > 1) {
    standin::AddFaultsRequest request;
    for (std::size_t i = 1; i < words.size(); ++i) request.add_rules(words[i]);
    show(ask(*stub, address, &Stub::AddFaults, request));
  } else if (command == "clear" && words.size() == 1) {
    ask(*stub, address, &Stub::ClearFaults, standin::Nothing());
  } else if (command == "pace" && words.size() == 1) {
    show(ask(*stub, address, &Stub::SetPace, standin::Pace()));
  } else if (command == "latency" && words.size() == 2) {
    standin::Pace pace;
    pace.set_latency(words[1]);
    show(ask(*stub, address, &Stub::SetPace, pace));
  } else if (command == "rate" && words.size() == 2) {
    standin::Pace pace;
    pace.set_rate(number(words[1]));
    show(ask(*stub, address, &Stub::SetPace, pace));
  } else if (command == "dump" && words.size() < 3) {
    const auto state = ask(*stub, address, &Stub::Dump, standin::Nothing());
    if (file)
      writeFile(words[1], state.lines());
    else
      std::cout << state.lines() << std::flush;
  } else if (command == "load" && file) {
    standin::State state;
    state.set_lines(contentOf(words[1]));
    ask(*stub, address, &Stub::Load, state);
  } else {
    throw std::runtime_error(
        "ctl takes ADDRESS and one of: faults, add RULE..., clear, pace, latency MS|MS..MS, " +
        std::string("rate N, dump [FILE], load FILE"));
  }
  return 0;
}

}  // namespace Standin
