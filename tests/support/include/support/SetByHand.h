#pragma once

#include <support/Agent.h>
#include <support/FakeDaemon.h>

#include <thread>

#include <Norv/GrpcClient.h>

namespace support {

// Parts of a connection that a manager is given and does not own. They go before it does: destroy
// it with simulation selected.
struct SetByHand {
  SetByHand(const Agent& agent, FakeDaemon& daemon)
      : client(daemon.inProcessChannel(), agent.pending, agent.status, &lock, &condition) {
    agent.manager->threadLockIs(&lock);
    agent.manager->threadConditionIs(&condition);
    agent.manager->grpcReplyThreadIs(&thread);
    agent.manager->clientIs(&client);
  }

  Lumo::Lock lock;
  Lumo::Condition condition;
  std::thread thread;
  Norv::GrpcClient client;
};

}  // namespace support
