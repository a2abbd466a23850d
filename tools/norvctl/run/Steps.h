#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"

// Where the steps of a session come from: files that were read through and found good before, or a
// stream that is read as it comes. Either way one step at a time, so that their number costs no
// memory.
namespace Norvctl {

// What is wrong with the input, as "FILE:LINE:COLUMN: reason".
class InputError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class StepSource {
 public:
  virtual ~StepSource() = default;
  // The next step, in the order of sending; none at the end. May wait for a stream. Throws
  // InputError. One thread at a time.
  virtual std::optional<Step> next() = 0;
  // Whether what was not taken can be read to its end without waiting.
  virtual bool bounded() const = 0;
  // From here on, requests are left unread. Any thread.
  virtual void skipRequests() {}
};

struct InputOptions {
  bool allowAbort = false;
  bool stream = false;  // take files as they come, too
};

// What a file held when it was read through: a number for each of its blocks. It tells a file that
// has changed by mistake, not one that was forged.
struct Contents {
  std::vector<std::size_t> blocks;
  off_t size = 0;
};

// Lines of a file, counted.
class LineReader {
 public:
  // "-" is standard input. Throws InputError when it cannot be opened.
  explicit LineReader(const std::string& fileName);
  // Notes what the file holds.
  LineReader(const std::string& fileName, Contents& noted);
  // Reads what was noted, and throws InputError for a block that is another now. What has been
  // appended since is left.
  LineReader(const std::string& fileName, const Contents& expected);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Ends the file where it must be waited for after this has begun to return anything but 0.
  void endOn(int (*signalled)()) { signalled_ = signalled; }
  // The next line without its end; false at the end of the file. Throws InputError.
  bool next(std::string& line);
  std::size_t number() const { return number_; }  // of the last line, from 1
  off_t offset() const { return offset_; }        // where the next line begins
  void seek(off_t offset, std::size_t linesBefore);
  const std::string& name() const { return name_; }  // as a person is told
  // "FILE:LINE:COLUMN: reason", of the last line.
  std::string complaint(const Complaint& complaint) const;

 private:
  bool fill();
  std::size_t read(char* at, std::size_t most);
  void checkBlock(std::string_view block);

  // Not a stream of the standard library: a thread that waits in one would keep the process from
  // flushing all of them at its end.
  const std::string name_;
  const int fd_;
  std::string buffer_;
  std::size_t at_ = 0;  // in the buffer, where the next line begins
  std::size_t number_ = 0;
  off_t offset_ = 0;
  int (*signalled_)() = nullptr;
  Contents* noted_ = nullptr;
  const Contents* expected_ = nullptr;
  std::size_t block_ = 0;  // the next that is expected
};

// The commands of files in the order of sending: a queue's commands go when it is announced, and
// what is not announced at the end, queue by queue in the order of appearance. The files are read
// again for it; `next` throws where they do not hold any more what was checked.
class CheckedFiles : public StepSource {
 public:
  // Reads all files through. What is wrong goes into `complaints`.
  CheckedFiles(const std::vector<std::string>& files, const InputOptions& options,
               std::vector<std::string>& complaints);

  std::size_t commands() const { return commands_; }
  std::size_t announcements() const { return announcements_; }
  std::optional<Step> next() override;
  bool bounded() const override { return true; }
  void skipRequests() override { requestsSkipped_ = true; }

 private:
  // Where a line that is not blank stands.
  struct Place {
    std::size_t file;
    std::size_t index;  // among such lines of the file
    off_t offset;
    std::size_t linesBefore;
  };
  // Such lines of one file that follow each other: commands of one queue and its announcements.
  struct Slice {
    Place first;
    std::size_t steps;
    bool endsBefore(const Place& place) const {
      return first.file == place.file && first.index + steps == place.index;
    }
  };
  struct Queue {
    std::vector<Slice> waiting;
    bool used = false;
    std::string announcedAt;  // the place of the first announcement
  };

  void check(std::size_t file, std::vector<std::string>& complaints);
  void enter(const std::string& queue, const Place& place);
  void announce(const std::string& queue, const Place* place = nullptr);
  std::optional<Step> nextOfSlice();

  const std::vector<std::string> files_;
  std::vector<Contents> contents_;  // of the files
  const bool allowAbort_;
  std::atomic<bool> requestsSkipped_{false};
  std::map<std::string, Queue> queues_;
  std::vector<std::string> unannounced_;  // queues with waiting slices, in order of appearance
  // In the order of sending, a batch after the other. Batches that follow each other in a file are
  // one: their announcements stand in the slice.
  struct Batch {
    std::string queue;
    std::vector<Slice> slices;
  };
  std::vector<Batch> batches_;
  std::size_t commands_ = 0;
  std::size_t announcements_ = 0;

  std::size_t batch_ = 0;
  std::size_t slice_ = 0;
  std::size_t taken_ = 0;  // steps of the slice
  std::unique_ptr<LineReader> reader_;
  std::size_t readerFile_ = 0;
};

// Steps as their lines come.
class StreamedFiles : public StepSource {
 public:
  StreamedFiles(const std::vector<std::string>& files, const InputOptions& options);
  std::optional<Step> next() override;
  bool bounded() const override { return false; }

 private:
  void checkAnnouncements() const;

  const std::vector<std::string> files_;
  const CommandLineOptions lineOptions_;
  std::size_t file_ = 0;
  std::unique_ptr<LineReader> reader_;
  // By queue: the place of an announcement that no command has come for.
  std::map<std::string, std::string> idleAnnouncements_;
  std::map<std::string, bool> used_;
};

// Whether all of these can be read twice: files, neither standard input nor pipes.
bool readableTwice(const std::vector<std::string>& files);

}  // namespace Norvctl
