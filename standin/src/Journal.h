#pragma once

#include <google/protobuf/message.h>

#include <deque>
#include <string>

namespace Standin {

// The calls that the state came from, in order, since it was last empty. Refused calls are among
// them: they may place leaves. Not thread safe.
class Journal {
 public:
  // Notes a call by the request's number; those that change nothing, module commands that
  // only ask among them, are passed over.
  void note(int number, const google::protobuf::Message& request);
  // A line of JSON for each call. Throws std::runtime_error when there were too many to keep.
  std::string lines() const;

 private:
  struct Call {
    int number;
    std::string request;  // Serialised.
  };

  std::deque<Call> calls_;
  std::size_t bytes_ = 0;
  bool full_ = false;
};

}  // namespace Standin
