#pragma once

#include <support/Environment.h>
#include <support/Eventually.h>

#include <memory>
#include <string>

#include <Norv/ConnectionsMgr.h>

#include "Commands.h"

namespace support {

// The objects of a small agent around one manager, for a test. The manager is dropped the one way
// it can be while its worker lives: with simulation selected, which leaves worker and client
// behind.
struct Agent {
  Agent();
  ~Agent();

  // Makes the manager; from here on there is a worker, unless simulation is selected.
  void connect(unsigned short port, const std::string& host = "127.0.0.1");
  void dropManager();

  Lumo::Ptr<Norv::CmdConfigGroup> queue(const std::string& name = "main");
  // A logged command with an empty request, numbered from 0 in the order of the calls.
  Lumo::Ptr<Norv::GrpcCmd> command(Norv::GrpcRequestType type = Norv::getVersion);
  void enqueue(Norv::GrpcRequestType type = Norv::getVersion, const std::string& name = "main");
  void announce(const std::string& name = "main");
  // Commands in the pending queue; looks under the lock where there is one.
  U32 waiting() const;
  // Signals the worker under the lock, as a wake-up may be lost.
  void wake();
  // Waits for an effect, without the activity lock, waking the worker meanwhile.
  bool eventually(const std::function<bool()>& condition);

  Lumo::Ptr<Norv::GrpcGlobalCmdConfig> config;
  Lumo::Ptr<Norv::CmdGroup> pending;
  Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status;
  Lumo::Ptr<Norv::ConnectionsMgr> manager;
  std::shared_ptr<CommandLog> log = std::make_shared<CommandLog>();
  int made = 0;
};

}  // namespace support
