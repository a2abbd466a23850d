// Which attributes modules have, where those stand, and since when.

#include "Fixture.h"

using namespace bess::pb;

class StandinMetadata : public StandinTest::StandinFixture {
 protected:
  using Offsets = std::vector<std::int64_t>;
  static constexpr std::int64_t writtenForNobody = -1;
  static constexpr std::int64_t readFromNobody = -2;

  int made_ = 0;  // SetMetadata modules, which are called setattrN.

  void createWriterAndReader() {
    createModule("Timestamp", "t");
    createModule("Measure", "m");
  }
};

TEST_F(StandinMetadata, AttributesAreThoseOfTheClass) {
  const auto names = [this](const std::string& mclass) {
    GetModuleInfoRequest request;
    request.set_name(createModule(mclass));
    const auto info = call(&Stub::GetModuleInfo, request);
    std::string all;
    for (const auto& attribute : info.metadata())
      all +=
          attribute.name() + "/" + std::to_string(attribute.size()) + "/" + attribute.mode() + " ";
    return all;
  };
  EXPECT_EQ(names("Timestamp"), "timestamp/8/write ");
  EXPECT_EQ(names("Measure"), "timestamp/8/read ");
  EXPECT_EQ(names("IPEncap"),
            "ip_src/4/read ip_dst/4/read ip_proto/1/read ip_nexthop/4/write ether_type/2/write ");
  EXPECT_EQ(names("VXLANDecap"), "tun_ip_src/4/write tun_ip_dst/4/write tun_id/4/write ");
  EXPECT_EQ(names("VXLANEncap"),
            "tun_ip_src/4/read tun_ip_dst/4/read tun_id/4/read ip_src/4/write ip_dst/4/write "
            "ip_proto/1/write ");
}

TEST_F(StandinMetadata, AMarkAtAFixedOffsetIsNoMetadata) {
  EXPECT_EQ(createRefusal("Timestamp", "TimestampArg", R"("offset":14)"), "");
  EXPECT_TRUE(offsets("timestamp0").empty());
}

TEST_F(StandinMetadata, MetadataThatMeetsStandsApart) {
  SetMetadataArg foo, bar;
  foo.add_attrs()->set_name("foo");
  foo.mutable_attrs(0)->set_size(2);
  bar.add_attrs()->set_name("bar");
  bar.mutable_attrs(0)->set_size(2);
  MetadataTestArg reads;
  (*reads.mutable_read())["foo"] = 2;
  (*reads.mutable_read())["bar"] = 2;
  createModule("SetMetadata", "a", foo);
  createModule("SetMetadata", "b", bar);
  createModule("MetadataTest", "c", reads);
  connect("a", "b");
  connect("b", "c");
  ask(&Stub::ResumeAll);
  GetModuleInfoRequest request;
  request.set_name("c");
  const auto info = call(&Stub::GetModuleInfo, request);
  ASSERT_EQ(info.metadata_size(), 2);
  EXPECT_EQ(info.metadata(0).name(), "bar");
  EXPECT_EQ(info.metadata(0).offset(), 2);
  EXPECT_EQ(info.metadata(1).offset(), 0);
}

TEST_F(StandinMetadata, AnAttributeKeepsItsPlaceOnTheWholeWayToItsReader) {
  // Two attributes on one way get places of their own, though one is only passing by.
  createModule("Timestamp", "t");
  createModule("Bypass", "b1");
  createModule("Bypass", "b2");
  createModule("Measure", "m");
  SetMetadataArg arg;
  auto& attribute = *arg.add_attrs();
  attribute.set_name("x");
  attribute.set_size(8);
  attribute.set_value_int(1);
  createModule("SetMetadata", "s", arg);
  createModule("MetadataTest", "r", [] {
    MetadataTestArg reads;
    (*reads.mutable_read())["x"] = 8;
    return reads;
  }());
  connect("t", "b1");
  connect("b1", "s");
  connect("s", "b2");
  connect("b2", "r");
  connect("r", "m");
  ask(&Stub::ResumeAll);
  ASSERT_GE(offsets("t").at(0), 0);
  ASSERT_GE(offsets("s").at(0), 0);
  EXPECT_NE(offsets("s").at(0), offsets("t").at(0));
  EXPECT_EQ(offsets("r").at(0), offsets("s").at(0));
  EXPECT_EQ(offsets("m").at(0), offsets("t").at(0));
}

TEST_F(StandinMetadata, OffsetsAreComputedAtAResumeAndNotWhenAskedFor) {
  createModule("Timestamp", "t");
  EXPECT_EQ(offsets("t"), (std::vector<std::int64_t>{0}));
  ask(&Stub::CheckSchedulingConstraints);
  EXPECT_EQ(offsets("t"), (std::vector<std::int64_t>{0}));
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), (std::vector<std::int64_t>{-1}));
}

TEST_F(StandinMetadata, AConnectionCountsFromTheNextResumeOn) {
  createWriterAndReader();
  ask(&Stub::ResumeAll);
  EXPECT_EQ(connect("t", "m"), 0);
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  EXPECT_EQ(offsets("m"), Offsets{readFromNobody});
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{0});
  EXPECT_EQ(offsets("m"), Offsets{0});
}

TEST_F(StandinMetadata, ADisconnectionCountsFromTheNextResumeOn) {
  createWriterAndReader();
  connect("t", "m");
  ask(&Stub::ResumeAll);
  DisconnectModulesRequest request;
  request.set_name("t");
  EXPECT_EQ(call(&Stub::DisconnectModules, request).error().code(), 0);
  EXPECT_EQ(offsets("m"), Offsets{0});
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("m"), Offsets{readFromNobody});
}

TEST_F(StandinMetadata, ANewModuleHasNoPlacesBeforeTheNextResume) {
  createWriterAndReader();
  ask(&Stub::ResumeAll);
  createModule("Timestamp", "new");
  createModule("Measure", "alone");
  createModule("Bypass", "b");
  EXPECT_EQ(connect("new", "b"), 0);
  EXPECT_EQ(offsets("new"), Offsets{0});
  EXPECT_EQ(offsets("alone"), Offsets{0});
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("new"), Offsets{writtenForNobody});
  EXPECT_EQ(offsets("alone"), Offsets{readFromNobody});
}

TEST_F(StandinMetadata, ANewModuleChangesNothingForTheOthersBeforeTheNextResume) {
  createWriterAndReader();
  createModule("Bypass", "b");
  connect("t", "b");
  ask(&Stub::ResumeAll);
  createModule("Measure", "new");
  EXPECT_EQ(connect("b", "new"), 0);
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  EXPECT_EQ(offsets("new"), Offsets{0});
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{0});
}

TEST_F(StandinMetadata, ACommandThatChangesAttributesCountsFromTheNextResumeOn) {
  createModule("Timestamp", "t");
  createModule("HashLB", "h");
  connect("t", "h");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(commandRefusal("h", "set_mode", "HashLBCommandSetModeArg",
                           R"("fields":[{"attrName":"timestamp","numBytes":8}])"),
            "");
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{0});
  EXPECT_EQ(offsets("h"), Offsets{0});
}

TEST_F(StandinMetadata, APausingCallResumesRunningWorkersAndSoFindsThePlaces) {
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  createModule("Timestamp", "t");
  EXPECT_EQ(offsets("t"), Offsets{0});
  destroyModule("nope");
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  ask(&Stub::PauseAll);
  createModule("Timestamp", "later");
  destroyModule("nope");  // Nothing runs, nothing is resumed.
  EXPECT_EQ(offsets("later"), Offsets{0});
}

TEST_F(StandinMetadata, AWayAroundTheWriterLeavesTheReaderWithout) {
  createWriterAndReader();
  createModule("Merge", "join");
  createModule("Source", "src");
  connect("t", "join", 0, 0);
  connect("join", "m");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("m"), Offsets{0});
  connect("src", "join", 0, 1);
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("m"), Offsets{readFromNobody});
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
}

TEST_F(StandinMetadata, WritersOfOneReaderShareAPlace) {
  // Found one from the other: forwards to the reader, and from there back.
  createWriterAndReader();
  createModule("Timestamp", "u");
  createModule("Merge", "join");
  createModule("Measure", "n");
  createModule("Replicate", "fork");
  connect("t", "join", 0, 0);
  connect("u", "join", 0, 1);
  connect("join", "fork");
  connect("fork", "m", 0);
  connect("fork", "n", 1);
  ask(&Stub::ResumeAll);
  for (const char* name : {"t", "u", "m", "n"}) EXPECT_EQ(offsets(name), Offsets{0}) << name;
}

TEST_F(StandinMetadata, AScopeEndsAtTheNextWriter) {
  createWriterAndReader();
  createModule("Timestamp", "again");
  createModule("Source", "src");
  createModule("Merge", "join");
  createModule("Measure", "last");
  connect("t", "m");
  connect("m", "again");
  connect("again", "join", 0, 0);
  connect("src", "join", 0, 1);  // Past the second writer.
  connect("join", "last");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{0});
  EXPECT_EQ(offsets("m"), Offsets{0});
  EXPECT_EQ(offsets("again"), Offsets{writtenForNobody});
  EXPECT_EQ(offsets("last"), Offsets{readFromNobody});
}

TEST_F(StandinMetadata, ScopesThatMeetInTheirWriterStandApart) {
  const auto attribute = [](const std::string& name) {
    MetadataTestArg arg;
    (*arg.mutable_read())[name] = 4;
    return arg;
  };
  MetadataTestArg both;
  (*both.mutable_write())["a"] = 4;
  (*both.mutable_write())["b"] = 4;
  createModule("MetadataTest", "w", both);
  createModule("MetadataTest", "ra", attribute("a"));
  createModule("MetadataTest", "rb", attribute("b"));
  connect("w", "ra", 0);
  connect("w", "rb", 1);
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("w"), (Offsets{0, 4}));
  EXPECT_EQ(offsets("ra"), Offsets{0});
  EXPECT_EQ(offsets("rb"), Offsets{4});
}

TEST_F(StandinMetadata, ALoopIsGoneThroughOnce) {
  createWriterAndReader();
  createModule("Merge", "join");
  connect("t", "join", 0, 0);
  connect("join", "m");
  connect("m", "join", 0, 1);
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{0});
  EXPECT_EQ(offsets("m"), Offsets{0});
}

TEST_F(StandinMetadata, WritersFoundFromAReaderBringTheirReadersWithThem) {
  // From t forwards to m, back to u, and forwards to n, which t does not lead to.
  createWriterAndReader();
  createModule("Merge", "join");
  createModule("Replicate", "fork");
  createModule("Measure", "n");
  createModule("Timestamp", "u");
  createModule("Source", "src");
  createModule("Merge", "other");
  connect("t", "join", 0, 0);
  connect("u", "fork");
  connect("fork", "join", 0, 1);
  connect("join", "m");
  connect("fork", "other", 1, 0);
  connect("src", "other", 0, 1);  // Past the writers, so that nobody has a place.
  connect("other", "n");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(offsets("t"), Offsets{writtenForNobody});
  EXPECT_EQ(offsets("m"), Offsets{readFromNobody});
  EXPECT_EQ(offsets("n"), Offsets{readFromNobody});
}

TEST_F(StandinMetadata, ScopesThatDoNotMeetShareTheirBytesAndThereAreNinetySix) {
  const auto chain = [this](const std::string& prefix,
                            const std::vector<std::pair<char, int>>& all) {
    std::string last;
    MetadataTestArg reads;
    for (const auto& [letter, size] : all) {
      const std::string name(1, letter);
      createRefusal(
          "SetMetadata", "SetMetadataArg",
          "\"attrs\":[{\"name\":\"" + name + "\",\"size\":" + std::to_string(size) + "}]");
      const std::string made = "setattr" + std::to_string(made_++);
      if (!last.empty()) connect(last, made);
      last = made;
      (*reads.mutable_read())[name] = size;
    }
    EXPECT_EQ(createModule("MetadataTest", prefix, reads), 0);
    connect(last, prefix);
  };
  chain("one", {{'a', 32}, {'b', 3}, {'c', 32}, {'d', 1}, {'e', 32}});
  chain("two", {{'x', 4}});
  chain("full", {{'a', 32}, {'b', 32}, {'c', 32}});
  ask(&Stub::ResumeAll);
  // By the writers' names: a at 0; b behind it; c on the next eight; d between b and c; no room for
  // e.
  EXPECT_EQ(offsets("one"), (Offsets{0, 32, 40, 35, -3}));
  EXPECT_EQ(offsets("two"), Offsets{0});
  EXPECT_EQ(offsets("full"), (Offsets{0, 32, 64}));
}

TEST_F(StandinMetadata, TensOfThousandsOfModulesAreConnectedWhileWorkersRun) {
  // This does not end if each connection looks through all modules.
  constexpr int modules = 30000;
  std::string lines =
      "{\"type\":\"createModule\",\"request\":{\"mclass\":\"Source\",\"name\":\"m0\"}}\n"
      "{\"type\":\"resumeAll\"}\n";
  for (int i = 1; i <= modules; ++i) {
    const std::string name = "m" + std::to_string(i), previous = "m" + std::to_string(i - 1);
    lines += "{\"type\":\"createModule\",\"request\":{\"mclass\":\"SetMetadata\",\"name\":\"" +
             name +
             "\",\"arg\":{\"@type\":\"type.googleapis.com/bess.pb.SetMetadataArg\",\"attrs\":"
             "[{\"name\":\"a" +
             std::to_string(i) +
             "\",\"size\":4}]}}}\n"
             "{\"type\":\"connectModules\",\"request\":{\"m1\":\"" +
             previous + "\",\"m2\":\"" + name + "\"}}\n";
  }
  server_->load(lines);
  EXPECT_EQ(offsets("m" + std::to_string(modules)), Offsets{writtenForNobody});
}
