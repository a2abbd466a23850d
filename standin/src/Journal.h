#pragma once

#include <google/protobuf/message.h>

#include <deque>
#include <string>

namespace Standin {

// The calls that the state came from, in order, since the beginning or, once they were too many,
// since the next resetAll. Refused calls are among them: they may place leaves. Not thread safe.
class Journal {
 public:
  // Notes a call by the request's number, with the code it was refused with in band, 0 for none;
  // those that change nothing, module commands that only ask among them, are passed over.
  void note(int number, const google::protobuf::Message& request, int code);
  // A line of JSON for each call. Throws std::runtime_error when there were too many to keep.
  std::string lines() const;

 private:
  struct Call {
    int number;
    int code;
    std::string request;  // Serialised.
  };

  std::deque<Call> calls_;
  std::size_t bytes_ = 0;
  bool full_ = false;
};

}  // namespace Standin
