#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "QueueModel.h"
#include "QueueSupport.h"

namespace {

using namespace Norv;

template <class Owner>
Lumo::Ptr<Owner> ownerOf() {
  if constexpr (std::is_same_v<Owner, CmdGroup>) return cmdGroupFactory();
  if constexpr (std::is_same_v<Owner, CmdConfigGroup>) return cmdConfigGroupFactory("q");
}

// The queue inside an owner beside the model: what it uses again of entries that were taken must
// not show, neither in the queue nor to an iterator nor in the commands' counts.
template <class Owner>
class OwnerPair {
 public:
  bool enq() { return enqCommand(newCommand()); }
  bool enqNull() { return enqCommand(null); }
  bool deq() {
    const bool right = isCommand(group_->cmdBatchDeq(), model_.takeHead());
    return right && same();
  }
  bool del(U32 index) {
    const bool right = isCommand(group_->cmdBatchDel(index), model_.del(index));
    return right && same();
  }
  bool is(U32 index) {
    const int id = newCommand();
    bool placed = true;
    try {
      group_->cmdBatchIs(index, commands_[id]);
    } catch (const Lumo::RangeException&) {
      placed = false;
    }
    if (int* present = valueAt(index)) {
      *present = id;
      return placed && same();
    }
    return placed == model_.place(index, id) && same();
  }
  // Deletes, but for a named queue's null entry below the count, which is the same command already.
  bool isNull(U32 index) {
    group_->cmdBatchIs(index, nullptr);
    const int* present = valueAt(index);
    const bool kept = std::is_same_v<Owner, CmdConfigGroup> && present && *present == null &&
                      index < model_.items.size();
    if (present && !kept) model_.del(index);
    return same();
  }
  bool delAll() {
    group_->cmdBatchDelAll();
    for (auto index = model_.indexAt(0); index;) {
      const U32 last = *index;
      model_.del(last);
      index = model_.next(0, last, true);
    }
    return same();
  }
  bool metadata(U32 head, U32 tail) {
    group_->cmdBatchMetadataIs({head, tail});
    model_.head = head;
    model_.storedTail = tail;
    return same();
  }
  // Moves the indexes about: the stored tail below what the last entry says it is, the head now and
  // then from its entry. In an empty queue both.
  bool anyMetadata(unsigned random) {
    const U32 head = model_.head + (random % 4 == 0 ? random / 4 % 3 : 0);
    if (model_.items.empty()) return metadata(head, head);
    const U32 last = model_.items.back().index;
    return metadata(head, last - std::min(last, random / 16 % 4));
  }
  bool startAt(U32 index) const {
    const auto found = group_->cmdBatchIteratorConst(index);
    const auto expected = model_.indexAt(model_.startAt(index));
    return found ? expected == found.key() : !expected;
  }
  bool step() {
    if (!iterator_ || !*iterator_) {
      iterator_.emplace(group_->cmdBatchIteratorConst());
      if (*iterator_) key_ = iterator_->key();
      seen_ = group_->cmdBatchVersion();
      return same();
    }
    const bool changed = std::exchange(seen_, group_->cmdBatchVersion()) != seen_;
    const auto expected = changed ? model_.next(0, iterator_->key(), true) : behind(key_);
    ++*iterator_;
    if (*iterator_) key_ = iterator_->key();
    return (*iterator_ ? expected == key_ : !expected) && same();
  }
  U32 members() const { return group_->cmdBatchs(); }
  // One of those in use, or near them.
  U32 anyIndex(unsigned random) const {
    if (model_.items.empty() || random % 3 == 0) return model_.head + random / 3 % 6;
    return model_.items[random / 3 % model_.items.size()].index;
  }

 private:
  static constexpr int null = -2;

  bool enqCommand(int id) {
    bool placed = true;
    try {
      group_->cmdBatchEnq(id == null ? Lumo::Ptr<GrpcCmd>() : commands_[id]);
    } catch (const Lumo::RangeException&) {
      placed = false;
    }
    return placed == model_.append(id) && same();
  }
  int newCommand() {
    commands_[next_] = support::cmd();
    return next_++;
  }
  int* valueAt(U32 index) {
    for (auto& item : model_.items) {
      if (item.index == index) return &item.value;
    }
    return nullptr;
  }
  // The entry behind the one that the iterator has stood on since the queue was changed last.
  std::optional<U32> behind(U32 index) const {
    for (std::size_t at = 0; at < model_.items.size(); ++at) {
      if (model_.items[at].index == index) return model_.indexAt(at + 1);
    }
    return std::nullopt;
  }
  int idOf(const Lumo::Ptr<GrpcCmd>& cmd) const {
    if (!cmd) return null;
    for (const auto& [id, known] : commands_) {
      if (known == cmd) return id;
    }
    return -1;
  }
  bool isCommand(const Lumo::Ptr<GrpcCmd>& cmd, std::optional<int> id) const {
    return id && *id != null ? cmd == commands_.at(*id) : !cmd;
  }
  // Forgets the commands that nobody but this pair may hold any more, and looks that nobody does.
  bool same() {
    std::map<int, U32> holds;
    std::vector<model::Queue<U32>::Item> items;
    for (auto it = group_->cmdBatchIteratorConst(); it; ++it) {
      items.push_back({it.key(), idOf(it.cmdBatch())});
      ++holds[items.back().value];
    }
    // The iterator keeps its entry, which keeps its command; counted once if it is in the queue.
    if (iterator_ && *iterator_) {
      if (iterator_->key() != key_) return false;
      holds[idOf(iterator_->cmdBatch())] = 1;
    }
    for (auto it = commands_.begin(); it != commands_.end();) {
      if (it->second->references() != 1 + holds[it->first]) return false;
      it = holds[it->first] == 0 ? commands_.erase(it) : std::next(it);
    }
    const CmdBatchMetadata metadata = group_->cmdBatchMetadata();
    return items == model_.items && group_->cmdBatchs() == items.size() &&
           metadata.headIndex == model_.head && metadata.tailIndex == model_.tail() &&
           group_->cmdBatchVersion() == model_.version;
  }

  Lumo::Ptr<Owner> group_ = ownerOf<Owner>();
  model::Queue<U32> model_;
  std::map<int, Lumo::Ptr<GrpcCmd>> commands_;
  int next_ = 0;
  std::optional<typename Owner::CmdBatchIteratorConst> iterator_;
  U32 key_ = 0;   // of the entry that the iterator stands on, wherever that entry is now
  U32 seen_ = 0;  // the queue's version at the iterator's last step
};

template <class Owner>
struct CmdBatchOf : testing::Test {};
using Owners = testing::Types<CmdGroup, CmdConfigGroup>;
TYPED_TEST_SUITE(CmdBatchOf, Owners);

TYPED_TEST(CmdBatchOf, AgreesWithItsModelUnderRandomOperations) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    OwnerPair<TypeParam> pair;
    // Some begin close to the wrap.
    const U32 start = seed % 3 == 0 ? 0xFFFFFFF0U + seed % 16 : 0;
    ASSERT_TRUE(pair.metadata(start, start));
    for (int step = 0; step < 400; ++step) {
      const U32 index = pair.anyIndex(static_cast<unsigned>(random()));
      bool agree = true;
      switch (random() % 20) {
        case 0:
          agree = pair.del(index);
          break;
        case 1:
          agree = pair.is(index);
          break;
        case 2:
          agree = random() % 3 != 0 || pair.isNull(index);
          break;
        case 3:
          agree = pair.enqNull();
          break;
        case 4:
          agree = random() % 10 != 0 || pair.delAll();
          break;
        case 5:
          agree = pair.startAt(index);
          if (random() % 4 == 0) agree = agree && pair.anyMetadata(static_cast<unsigned>(random()));
          break;
        case 6:
        case 7:
        case 8:
          agree = pair.step();
          break;
        case 9:
        case 10:
        case 11:
        case 12:
        case 13:
          agree = pair.deq();
          break;
        default:
          agree = pair.enq();
      }
      ASSERT_TRUE(agree) << "seed " << seed << " step " << step;
    }
  }
}

TYPED_TEST(CmdBatchOf, ShowsTheNextIndexWithoutStoringIt) {
  const Lumo::Ptr<TypeParam> group = ownerOf<TypeParam>();
  for (int i = 0; i < 3; ++i) group->cmdBatchEnq(support::cmd());
  group->cmdBatchMetadataIs({0, 1});
  EXPECT_EQ(group->cmdBatchMetadata(), (CmdBatchMetadata{0, 3}));
  EXPECT_EQ(group->cmdBatchMetadata(), (CmdBatchMetadata{0, 3}));
  for (int i = 0; i < 3; ++i) group->cmdBatchDeq();
  EXPECT_EQ(group->cmdBatchMetadata(), (CmdBatchMetadata{1, 1}));
}

TYPED_TEST(CmdBatchOf, StoresTheNextIndexAsItGivesIt) {
  const Lumo::Ptr<TypeParam> group = ownerOf<TypeParam>();
  for (int i = 0; i < 3; ++i) group->cmdBatchEnq(support::cmd());
  group->cmdBatchMetadataIs({0, 1});
  group->cmdBatchIs(1, nullptr);         // looks for no place
  group->cmdBatchIs(1, support::cmd());  // does
  for (int i = 0; i < 3; ++i) group->cmdBatchDeq();
  EXPECT_EQ(group->cmdBatchMetadata(), (CmdBatchMetadata{3, 3}));
}

}  // namespace
