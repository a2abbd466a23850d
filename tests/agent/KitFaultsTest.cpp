// Daemons that are not there, or are and do not answer as they should: what the library does, what
// the kit says of it, and that every command gets its outcome.

#include <arpa/inet.h>
#include <grpcpp/grpcpp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "KitFixture.h"

namespace {

using namespace agent_test;
using testing::ElementsAre;
using testing::Pair;

// A port of the loopback where connections are made and nobody ever says anything.
class SilentPort {
 public:
  SilentPort() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, any, size) != 0 || listen(socket_, 16) != 0 ||
        getsockname(socket_, any, &size) != 0) {
      throw std::runtime_error("no socket to listen on");
    }
    port_ = ntohs(address.sin_port);
  }
  ~SilentPort() { close(socket_); }
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;
  U16 port() const { return port_; }

 private:
  const int socket_ = socket(AF_INET, SOCK_STREAM, 0);
  U16 port_ = 0;
};

U16 portOfAServerThatHasGone() {
  FakeDaemon gone;
  return gone.port();
}

struct KitFaults : KitFixture {
  void connectTo(const std::string& host, U16 port) {
    Lumo::ActivityLockAnchor activity;
    agent.connect(port, host);
    kit.managerIs(agent.manager);
  }
  // Waits until gRPC itself has tried to reach the place; connections are shared by address.
  static bool tried(const std::string& host, U16 port) {
    const auto channel =
        grpc::CreateChannel(host + ":" + std::to_string(port), grpc::InsecureChannelCredentials());
    return support::eventually([&] {
      const grpc_connectivity_state state = channel->GetState(true);
      return state == GRPC_CHANNEL_CONNECTING || state == GRPC_CHANNEL_TRANSIENT_FAILURE;
    });
  }
  void closeBooks() {
    Lumo::ActivityLockAnchor activity;
    kit.closeBooks("no more time");
  }
};

struct Place {
  const char* what;
  std::string host;
  std::function<U16()> port;
};

class AnUnreachableDaemon : public KitFaults, public testing::WithParamInterface<Place> {};

// The call waits for its daemon for ever: no failure, no flag, nothing lost.
TEST_P(AnUnreachableDaemon, LeavesTheCommandUnderWayAndTheOthersWaiting) {
  const SilentPort silent;
  const std::string host = GetParam().host;
  const U16 port = GetParam().port ? GetParam().port() : silent.port();
  connectTo(host, port);
  enqueue(3);
  announce();
  ASSERT_TRUE(ticking([&] { return agent.waiting() == 2; }));
  ASSERT_TRUE(tried(host, port));
  advance(5s);
  tick();
  const Status status = this->status();
  EXPECT_EQ(status.worker, Status::Worker::inFlight);
  ASSERT_TRUE(status.inFlight);
  EXPECT_EQ(status.inFlight->type, Norv::getVersion);
  EXPECT_EQ(status.oldestAge, 5s);
  EXPECT_EQ(status.pending.now, 2u);
  EXPECT_FALSE(agent.status->errorOccured());
  EXPECT_EQ(agent.log->responses, 0);
  EXPECT_THAT(ends(), ElementsAre());

  closeBooks();
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(2, Outcome::dropped),
                                  Pair(3, Outcome::dropped)));
  EXPECT_EQ(told->reports[0].errorText, "no more time");
}

INSTANTIATE_TEST_SUITE_P(
    Places, AnUnreachableDaemon,
    testing::Values(Place{"EmptyHost", "", [] { return U16(10514); }},
                    Place{"UnresolvableHost", "nowhere.invalid", [] { return U16(10514); }},
                    Place{"PortZero", "127.0.0.1", [] { return U16(0); }},
                    Place{"HighestPort", "127.0.0.1", [] { return U16(65535); }},
                    Place{"RefusedPort", "127.0.0.1", portOfAServerThatHasGone},
                    Place{"SilentPort", "127.0.0.1", nullptr}),
    [](const auto& place) { return place.param.what; });

TEST_F(KitFaults, ADaemonThatIsBackOnItsPortGetsTheRest) {
  auto first = std::make_unique<FakeDaemon>();
  const U16 port = first->port();
  connectTo("127.0.0.1", port);
  enqueue(2);
  announce();
  ASSERT_TRUE(ticking([&] { return ends().size() == 2; }));
  first.reset();
  enqueue(2);
  announce();
  ASSERT_TRUE(ticking([&] { return agent.waiting() == 1; }));
  FakeDaemon second(port);
  EXPECT_TRUE(ticking([&] { return ends().size() == 4; }));
  EXPECT_EQ(kit.ledger()->count(Outcome::ok), 4u);
  EXPECT_EQ(second.calls().size(), 2u);
  EXPECT_FALSE(agent.status->errorOccured());
}

TEST_F(KitFaults, ADaemonThatEndsDuringACallFailsItAndGetsTheRestOnceItIsBack) {
  kit.failurePolicyIs({FailurePolicy::Action::clearAndGoOn, 0ms});
  auto first = std::make_unique<FakeDaemon>();
  const U16 port = first->port();
  first->handlerIs([](auto, const auto&, auto*) { return FakeDaemon::Answer{14, "going", ""}; });
  first->hold();
  connectTo("127.0.0.1", port);
  enqueue(3);
  announce();
  ASSERT_TRUE(ticking([&] { return first->calls().size() == 1; }));
  first.reset();
  ASSERT_TRUE(support::eventually([&] { return ends().size() == 1; }));
  FakeDaemon second(port);
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_EQ(ends()[0], std::pair(U64{1}, Outcome::failed));
  // The worker may have taken the second before it saw that the flag is down again.
  EXPECT_LE(kit.ledger()->count(Outcome::dropped), 1u);
  EXPECT_EQ(ends().back(), std::pair(U64{3}, Outcome::ok));
}

TEST_F(KitFaults, AReplyAboveTheLimitFailsItsCommand) {
  daemon.handlerIs([](auto, const auto&, google::protobuf::Message*) {
    return FakeDaemon::Answer{0, "", "\x0a\x82\x80\x80\x02" + std::string((4 << 20) + 2, 'v')};
  });
  connect();
  enqueue(2);
  announce();
  ASSERT_TRUE(ticking([&] { return kit.stopped(); }));  // after the books know it
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed)));
  EXPECT_TRUE(agent.status->errorOccured());
}

// Only the silent path tells a reply that does not decode from a failure: no flag, no response.
TEST_F(KitFaults, RepliesThatDoNotDecodeStopNothing) {
  daemon.handlerIs([](auto, const auto&, auto*) { return FakeDaemon::Answer{0, "", "\x0a\x7f"}; });
  connect();
  enqueue(3);
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::undecodable), Pair(2, Outcome::undecodable),
                                  Pair(3, Outcome::undecodable)));
  EXPECT_FALSE(kit.stopped());
  EXPECT_EQ(agent.log->responses, 0);
}

}  // namespace
