#include <gtest/gtest.h>

#include <map>
#include <random>

#include "QueueModel.h"
#include "QueueSupport.h"

namespace {

using namespace Norv;

// The queue inside an owner beside the model: what it uses again of entries that were taken must
// not show, neither in the queue nor to an iterator nor in the commands' counts.
class OwnerPair {
 public:
  bool enq() {
    const int id = newCommand();
    group_->cmdBatchEnq(commands_[id]);
    return model_.append(id) && same();
  }
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
    group_->cmdBatchIs(index, commands_[id]);
    for (auto& item : model_.items) {
      if (item.index != index) continue;
      item.value = id;
      return same();
    }
    return model_.place(index, id) && same();
  }
  bool step() {
    if (!iterator_ || !*iterator_) {
      iterator_.emplace(group_->cmdBatchIteratorConst());
      if (*iterator_) key_ = iterator_->key();
      seen_ = group_->cmdBatchVersion();
      return same();
    }
    const bool changed = std::exchange(seen_, group_->cmdBatchVersion()) != seen_;
    const auto expected = model_.next(idOf(iterator_->cmdBatch()), iterator_->key(), changed);
    ++*iterator_;
    if (*iterator_) key_ = iterator_->key();
    return (*iterator_ ? expected == key_ : !expected) && same();
  }
  U32 members() const { return group_->cmdBatchs(); }

 private:
  int newCommand() {
    commands_[next_] = support::cmd();
    return next_++;
  }
  int idOf(const Lumo::Ptr<GrpcCmd>& cmd) const {
    for (const auto& [id, known] : commands_) {
      if (known == cmd) return id;
    }
    return -1;
  }
  bool isCommand(const Lumo::Ptr<GrpcCmd>& cmd, std::optional<int> id) const {
    return id ? cmd == commands_.at(*id) : !cmd;
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
      if (iterator_->key() != key_ || !iterator_->cmdBatch()) return false;
      holds[idOf(iterator_->cmdBatch())] = 1;
    }
    for (auto it = commands_.begin(); it != commands_.end();) {
      if (it->second->references() != 1 + holds[it->first]) return false;
      it = holds[it->first] == 0 ? commands_.erase(it) : std::next(it);
    }
    return items == model_.items && group_->cmdBatchs() == items.size() &&
           group_->cmdBatchMetadata().headIndex == model_.head &&
           group_->cmdBatchVersion() == model_.version;
  }

  Lumo::Ptr<CmdGroup> group_ = CmdGroup::CmdGroupIs();
  model::Queue<U32> model_;
  std::map<int, Lumo::Ptr<GrpcCmd>> commands_;
  int next_ = 0;
  std::optional<CmdGroup::CmdBatchIteratorConst> iterator_;
  U32 key_ = 0;   // of the entry that the iterator stands on, wherever that entry is now
  U32 seen_ = 0;  // the queue's version at the iterator's last step
};

TEST(CmdBatch, AgreesWithItsModelUnderRandomOperations) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    OwnerPair pair;
    U32 appended = 0;
    for (int step = 0; step < 400; ++step) {
      const U32 index = static_cast<U32>(random()) % (appended + 3);
      bool agree = true;
      switch (random() % 12) {
        case 0:
          agree = pair.del(index);
          break;
        case 1:
          agree = pair.is(index);
          break;
        case 2:
        case 3:
          agree = pair.step();
          break;
        case 4:
        case 5:
        case 6:
        case 7:
          agree = pair.deq();
          break;
        default:
          agree = pair.enq();
          ++appended;
      }
      ASSERT_TRUE(agree) << "seed " << seed << " step " << step;
    }
  }
}

}  // namespace
