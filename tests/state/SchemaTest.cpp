#include <gtest/gtest.h>

#include "SchemaCheck.h"
#include "SwitchFixture.h"

// What an editor is told of a document agrees with what is read of it.

namespace Norv::State {

namespace {

// It is read, and the schema takes it, and its canonical form.
void expectGood(const std::string& document) {
  EXPECT_EQ(problems(document), "") << document;
  EXPECT_EQ(schemaProblem(document), "") << document;
  EXPECT_EQ(schemaProblem(json(wanted(document))), "") << document;
}

}  // namespace

TEST(Schema, TakesTheExample) {
  EXPECT_EQ(schemaProblem(json(wanted(contents(NORV_EXAMPLE)))), "");
}

TEST(Schema, TakesEveryFormOfASection) {
  expectGood(R"({"plugins": [], "workers": {"0": null, "1": {"core": "0x1", "running": false}}})");
  expectGood(R"({"ports": {"p": "PMDPort", "q": {"driver": "UnixSocketPort",
      "arg": {"path": "@q", "minRxIntervalNs": 3}, "num_inc_q": 2, "mtu": "1400", "admin_up": false,
      "mac_addr": "02:00:00:00:00:01"}, "r": {"driver": "VPort", "arg": "unknown"}}})");
  expectGood(R"({"modules": {"a": "Sink", "b": {"class": "Source", "burst": 3,
      "tasks": [{"wid": 0}]}, "c": {"class": "L2Forward", "default_gate": "drop",
      "entries": [{"addr": "2:0:0:0:0:1", "gate": 1}]}, "d": {"class": "ExactMatch",
      "arg": {"fields": [{"offset": 26, "num_bytes": 4}]},
      "rules": [{"gate": 1, "fields": ["10.0.0.1"]}, {"gate": 2, "fields": [{"value_int": 7}]}]}},
      "workers": {"0": {}}})");
  expectGood(R"({"modules": {"a": "Merge", "b": "Merge"}, "connections": ["a -> b",
      {"from": "b", "ogate": 0, "to": "a", "igate": 1, "skip_default_hooks": true}],
      "hooks": [{"class": "Track", "module": "a", "ogate": 0, "name": "mine",
      "arg": {"bits": true}}]})");
  expectGood(R"({"workers": {"0": {}}, "traffic_classes": {"t": "round_robin",
      "s": {"policy": "rate_limit", "limit": {"packet": 1000}, "wid": 0}, "u": {"policy":
      "weighted_fair", "resource": "bit", "wid": 0}, "v": {"policy": "priority", "parent": "u",
      "share": 2}}})");
}

TEST(Schema, RefusesWhatIsRefusedWhenItIsRead) {
  for (const char* document : {
           R"({"module": {}})",
           R"({"modules": {"a": "Sinc"}})",
           R"({"modules": {"a": {"class": "Sink", "burst": 3}}})",
           R"({"modules": {"a": {"class": "Sink", "tasks": "x"}}})",
           R"({"modules": {"a": {"class": "Source", "arg": {"pkt_sise": 60}}}})",
           R"({"modules": {"a": {"class": "HashLB", "arg": {"mode": "l5"}}}})",
           R"({"modules": {"a": {"arg": {}}}})",
           R"({"modules": {"a": {"class": "IPLookup", "rules": {"gate": 1}}}})",
           R"({"ports": {"p": "PMDport"}})",
           R"({"ports": {"p": {"driver": "PMDPort", "admin_up": 1}}})",
           R"({"workers": {"0": {"cor": 0}}})",
           R"({"connections": [{"from": "a"}]})",
           R"({"traffic_classes": {"x": "prority"}})",
           R"({"traffic_classes": {"x": {"policy": "rate_limit", "resource": "packets"}}})",
           R"({"hooks": [{"class": "Trac", "module": "a", "ogate": 0}]})",
       }) {
    EXPECT_NE(schemaProblem(document), "") << document;
    EXPECT_NE(problems(document), "") << document;
  }
}

}  // namespace Norv::State
