#pragma once

#include <gtest/gtest.h>
#include <support/TemporaryFolder.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <Lumo/TraceRecorder.h>
#include <Skein/Layout.h>
#include <Skein/Skein.h>

#include "TracePoints.h"

using support::TemporaryFolder;

// A record as the tests compare it.
struct Seen {
  int id;
  unsigned level;
  int thread;
  U64 monotonicNs;
  std::string text;
  std::string line;
};

inline std::vector<Seen> recordsOf(Skein::Reader& reader) {
  std::vector<Seen> seen;
  reader.read([&](const Skein::Record& record) {
    Seen one{record.id, record.level, record.thread, record.monotonicNs, {}, {}};
    record.appendText(one.text);
    record.appendLine(one.line);
    seen.push_back(one);
  });
  return seen;
}

inline std::vector<Seen> recordsIn(const std::string& path) {
  Skein::Reader reader(path);
  auto seen = recordsOf(reader);
  EXPECT_EQ(reader.problem(), "");
  return seen;
}

inline std::vector<std::string> textsIn(const std::string& path) {
  std::vector<std::string> texts;
  for (const Seen& one : recordsIn(path)) texts.push_back(one.text);
  return texts;
}

inline std::size_t sitesIn(const std::string& path) {
  Skein::Reader reader(path);
  std::size_t count = 0;
  for (const auto& site : reader.sites()) count += site ? 1 : 0;
  return count;
}

inline Skein::FileHeader headerOf(const std::string& path) {
  Skein::FileHeader header;
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
  return header;
}

// The heads of the blocks that were begun, as they stand in the file.
inline std::vector<Skein::BlockHeader> blocksIn(const std::string& path) {
  const Skein::FileHeader header = headerOf(path);
  std::ifstream file(path, std::ios::binary);
  std::vector<Skein::BlockHeader> blocks;
  for (U32 i = 0; i < header.blockCount; ++i) {
    Skein::BlockHeader block;
    file.seekg(static_cast<std::streamoff>(header.blocksOffset + U64{i} * header.blockSize));
    file.read(reinterpret_cast<char*>(&block), sizeof block);
    if (block.sequence != 0) blocks.push_back(block);
  }
  return blocks;
}

// All tracing off at start and at the end, lines recorded, and a trace file on demand.
class TraceTest : public testing::Test {
 protected:
  TraceTest() { reset(); }
  ~TraceTest() override { reset(); }

  static void reset() {
    Skein::defaultSkeinHandleIs(nullptr);
    Lumo::coverageStream_ = nullptr;
    Lumo::traceSettingIs("");
    for (U8 i = 0; i < 10; ++i) Sample::levelMap[i] = Sample::otherLevelMap[i] = i;
  }
  static void textIsOn() { Lumo::traceSettingIs("*/*"); }
  void ringIsOn(Skein::TraceOptions options = {}) {
    skein = std::make_unique<Skein::TraceHandle>(path, options);
    Skein::defaultSkeinHandleIs(skein.get());
  }

  TemporaryFolder folder;
  const std::string path = folder.file("trace.skein");
  Lumo::TraceRecorder recorder;
  std::unique_ptr<Skein::TraceHandle> skein;
};
