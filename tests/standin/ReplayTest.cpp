// Recorded command files against the stand-in. A file is a conversation with a daemon from its
// start.

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <string>

#include "Replay.h"

namespace {

struct Recording {
  const char* name;
  bool bodies;  // The responses agree as well, not only the codes.
};

// Left out: the files in which the recorded daemon dies of a fault of its own, which the stand-in
// has not. Without bodies: the daemon tells how many addresses its packets made it translate.
constexpr Recording agreeing[] = {
    {"big_messages", true},
    {"cli_edit", true},
    {"cli_track", true},
    {"err_connect", true},
    {"err_module_command", true},
    {"err_module_create", true},
    {"err_plugin", true},
    {"err_port", true},
    {"err_port_in_use", true},
    {"err_port_unix", true},
    {"err_tc_add", true},
    {"err_tc_parent", true},
    {"err_worker_busy", true},
    {"err_workers", true},
    {"gatehook_native", true},
    {"igate_ogate_stats", true},
    {"kill_idle", true},
    {"mempool", true},
    {"meta_attr_match", true},
    {"meta_test10", true},
    {"meta_test11", true},
    {"meta_test13", true},
    {"meta_test14", true},
    {"meta_test16", true},
    {"meta_test17", true},
    {"meta_test3", true},
    {"meta_test4", true},
    {"meta_test6", true},
    {"meta_test7", true},
    {"meta_test9", true},
    {"meta_test_corner", true},
    {"meta_test_cycle2", true},
    {"meta_test_cycle3", true},
    {"modtest_acl", true},
    {"modtest_bpf", true},
    {"modtest_buffer", true},
    {"modtest_drr", true},
    {"modtest_etherencap", true},
    {"modtest_generic_decap", true},
    {"modtest_ip_checksum", true},
    {"modtest_l2forward", true},
    {"modtest_nat", true},
    {"modtest_random_split", true},
    {"modtest_replicate", true},
    {"modtest_update_ttl", true},
    {"modtest_url_filter", true},
    {"modtest_worker_split", true},
    {"perf_bpf", true},
    {"perf_complex_merge", true},
    {"perf_complex_split", true},
    {"perf_loopback_vport", true},
    {"perf_merge", true},
    {"perf_nat", false},
    {"perf_nat_bidir", false},
    {"perf_phy_forward_null", true},
    {"perf_pktgen", true},
    {"perf_pktgen_null_rate", true},
    {"perf_split", true},
    {"port_latency", true},
    {"port_loopback_null", true},
    {"port_loopback_vport", true},
    {"port_macswap_null", true},
    {"port_multicore_phy", true},
    {"port_p2s", true},
    {"port_p2s_null", true},
    {"port_s2p2s_null", true},
    {"port_s2p2s_null_multi", true},
    {"port_unix_port", true},
    {"port_vport", true},
    {"reset_all_full", true},
    {"reset_workers_attached", true},
    {"reset_workers_with_tasks", true},
    {"sample_acl", true},
    {"sample_drr", true},
    {"sample_exactmatch", true},
    {"sample_generic_encap", true},
    {"sample_hash_lb", true},
    {"sample_igate", true},
    {"sample_iplookup", true},
    {"sample_mpls", true},
    {"sample_multicore", true},
    {"sample_nat_head", false},
    {"sample_qtest", true},
    {"sample_random_split", true},
    {"sample_replicate", true},
    {"sample_s2s", true},
    {"sample_update", true},
    {"sample_url_filter", true},
    {"sample_vlantest", true},
    {"sample_worker_split", true},
    {"sys_info", true},
    {"tc_complextree", true},
    {"tc_max_burst", true},
    {"tc_ratelimit", true},
    {"unimplemented", true},
};

std::string differences(const StandinTest::ReplayResult& result) {
  std::string text;
  for (const std::string& difference : result.differences) text += difference + "\n";
  return text;
}

class Replay : public testing::TestWithParam<Recording> {};

}  // namespace

TEST_P(Replay, AgreesWithTheDaemon) {
  const std::vector<std::string> present = StandinTest::recordings();
  if (std::find(present.begin(), present.end(), GetParam().name) == present.end())
    GTEST_SKIP() << "The recording is not beside this checkout: "
                 << StandinTest::recordingsFolder() / GetParam().name;
  const StandinTest::ReplayResult result = StandinTest::replay(GetParam().name);
  std::cout << GetParam().name << ": " << result.lines << " lines, codes agree in " << result.codes
            << ", bodies in " << result.bodies << "\n";
  EXPECT_GT(result.lines, 0);
  EXPECT_EQ(result.codes, result.lines) << differences(result);
  if (GetParam().bodies) {
    EXPECT_EQ(result.bodies, result.lines) << differences(result);
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, Replay, testing::ValuesIn(agreeing),
                         [](const auto& row) { return std::string(row.param.name); });
