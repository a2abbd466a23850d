// Recordings of a daemon against the stand-in. What differs: where the recorded daemon dies of a
// fault of its own, or goes on with memory that it has given back (the leaf of a task, lost by a
// refused move), how many addresses its packets made it translate, and, in two lists of one
// recording, the place of `!default_rr_1` before `!default_rr_0`: it hangs on when the daemon
// entered their names, and nothing tells when that was. `standin_replay_report` shows the lines.

#include <gtest/gtest.h>

#include <iostream>

#include "Replay.h"

namespace {

void expectAgreement(const char* folder, double codes, double bodies) {
  const auto files = StandinTest::recordings(folder);
  if (files.empty()) GTEST_SKIP() << "There are no recordings at " << folder;
  StandinTest::ReplayResult total;
  for (const auto& file : files) total += StandinTest::replay(file);
  std::cout << files.size() << " files: " << total.summary() << "\n";
  EXPECT_GE(total.codeShare(), codes);
  EXPECT_GE(total.bodyShare(), bodies);
}

}  // namespace

TEST(StandinReplay, AgreesWithScriptedConversations) {
  expectAgreement(STANDIN_RECORDINGS "/recordings", 0.999, 0.997);
}

TEST(StandinReplay, AgreesWithRandomConversations) {
  expectAgreement(STANDIN_RECORDINGS "/recordings-random", 0.999, 0.997);
}
