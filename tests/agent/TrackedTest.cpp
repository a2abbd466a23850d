#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Commands.h>

#include <Norv/Agent/Tracked.h>
#include <bess/pb/service.pb.h>

namespace {

using namespace std::chrono_literals;
using Norv::Agent::Outcome;
using Norv::Agent::responseError;
using support::CommandLog;
using TrackedCmd = Norv::Agent::Tracked<support::LoggedCmd>;

struct Tracked : testing::Test {
  Lumo::Ptr<TrackedCmd> command(Norv::GrpcRequestType type = Norv::createPort) {
    return Lumo::allocate<TrackedCmd>(ledger, log, 0, support::newRequest(type).release(), type);
  }

  Norv::Agent::Time now{1s};
  std::shared_ptr<Norv::Agent::Ledger> ledger =
      std::make_shared<Norv::Agent::Ledger>([this] { return now; });
  std::shared_ptr<CommandLog> log = std::make_shared<CommandLog>();
};

TEST_F(Tracked, StaysTheCommandItIs) {
  const auto cmd = command(Norv::listPorts);
  EXPECT_EQ(cmd->requestType(), Norv::listPorts);
  EXPECT_EQ(cmd->request()->GetTypeName(), "bess.pb.EmptyRequest");
}

TEST_F(Tracked, EachHasAnEntryOfItsOwn) {
  const auto first = command();
  const auto second = command();
  EXPECT_EQ(first->id(), 1u);
  EXPECT_EQ(second->id(), 2u);
}

TEST_F(Tracked, AResponseReachesTheHandlerAndTheLedger) {
  const auto cmd = command();
  ledger->announced(cmd->id(), "main");
  bess::pb::CreatePortResponse response;
  cmd->processResponse(&response);
  EXPECT_EQ(log->responses, 1);
  EXPECT_EQ(ledger->count(Outcome::ok), 1u);
}

TEST_F(Tracked, AnErrorInTheResponseIsARefusal) {
  const auto cmd = command();
  ledger->announced(cmd->id(), "main");
  bess::pb::CreatePortResponse response;
  response.mutable_error()->set_code(17);
  cmd->processResponse(&response);
  EXPECT_EQ(log->responses, 1);
  EXPECT_EQ(ledger->count(Outcome::refused), 1u);
}

TEST_F(Tracked, AnErrorOfCodeZeroIsNone) {
  const auto cmd = command();
  ledger->announced(cmd->id(), "main");
  bess::pb::CreatePortResponse response;
  response.mutable_error()->set_errmsg("nothing wrong");
  cmd->processResponse(&response);
  EXPECT_EQ(ledger->count(Outcome::ok), 1u);
}

TEST_F(Tracked, ReleasedAfterItsAnswerItKeepsItsOutcome) {
  auto cmd = command();
  ledger->announced(cmd->id(), "main");
  bess::pb::CreatePortResponse response;
  cmd->processResponse(&response);
  cmd = nullptr;
  EXPECT_EQ(log->destroyed, 1);
  EXPECT_EQ(ledger->ended(), 1u);
  EXPECT_EQ(ledger->count(Outcome::ok), 1u);
}

TEST_F(Tracked, ReleasedUnansweredItIsDropped) {
  auto cmd = command();
  ledger->announced(cmd->id(), "main");
  cmd = nullptr;
  EXPECT_EQ(ledger->count(Outcome::dropped), 1u);
}

TEST_F(Tracked, TheLedgerOutlivesItsCommands) {
  const std::weak_ptr<Norv::Agent::Ledger> watched = ledger;
  auto cmd = command();
  ledger = nullptr;
  EXPECT_FALSE(watched.expired());
  cmd = nullptr;
  EXPECT_TRUE(watched.expired());
}

TEST(ResponseError, IsFoundInAnyResponse) {
  bess::pb::CommandResponse response;
  response.mutable_error()->set_code(2);
  response.mutable_error()->set_errmsg("no such module");
  EXPECT_EQ(responseError(response).code, 2);
  EXPECT_EQ(responseError(response).text, "no such module");
}

TEST(ResponseError, IsNoneWhereTheResponseCarriesNone) {
  EXPECT_EQ(responseError(bess::pb::CommandResponse()).code, 0);
  EXPECT_EQ(responseError(bess::pb::Error()).code, 0);  // a message without such a field
}

}  // namespace
