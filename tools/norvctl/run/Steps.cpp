#include "Steps.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <utility>

#include <Lumo/Assert.h>

#include "../text/Text.h"

namespace Norvctl {

namespace {

const char* const neverUsed =
    ": this queue is announced and never gets a command; leave the line out, or is its name "
    "misspelled?";

// What is read, and compared, at once.
constexpr std::size_t blockSize = 64 * 1024;

std::string placeText(const std::string& file, std::size_t line) {
  return file + ":" + std::to_string(line);
}

}  // namespace

LineReader::LineReader(const std::string& fileName)
    : name_(fileName == "-" ? "standard input" : fileName),
      fd_(fileName == "-" ? dup(STDIN_FILENO) : open(fileName.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (fd_ < 0) throw InputError(name_ + ": " + strerror(errno));
  struct stat status;
  if (fstat(fd_, &status) == 0 && S_ISDIR(status.st_mode)) {
    close(fd_);
    throw InputError(name_ + " is a folder; give the files in it");
  }
}

LineReader::LineReader(const std::string& fileName, Contents& noted) : LineReader(fileName) {
  noted_ = &noted;
}

LineReader::LineReader(const std::string& fileName, const Contents& expected)
    : LineReader(fileName) {
  expected_ = &expected;
}

LineReader::~LineReader() {
  close(fd_);
}

// What a stream has now; of a file whose contents matter, as much as there is. 0 at the end.
std::size_t LineReader::read(char* at, std::size_t most) {
  pollfd end{fd_, POLLIN, 0};
  constexpr int lookForSignals = 50;  // milliseconds
  while (signalled_ && poll(&end, 1, lookForSignals) <= 0) {
    if (signalled_()) return 0;
  }
  std::size_t taken = 0;
  do {
    const ssize_t length = ::read(fd_, at + taken, most - taken);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) throw InputError(name_ + ": cannot be read to its end: " + strerror(errno));
    if (length == 0) break;
    taken += static_cast<std::size_t>(length);
  } while (taken == 0 || ((noted_ || expected_) && taken < most));
  return taken;
}

// Reads more into the buffer; false at the end of the file.
bool LineReader::fill() {
  buffer_.erase(0, at_);
  at_ = 0;
  const std::size_t before = buffer_.size();
  std::size_t wanted = blockSize;
  if (expected_) {
    const auto rest = expected_->size - static_cast<off_t>(block_ * blockSize);
    wanted = std::min(wanted, static_cast<std::size_t>(std::max<off_t>(rest, 0)));
    if (wanted == 0) return false;
  }
  buffer_.resize(before + wanted);
  const std::size_t length = read(buffer_.data() + before, wanted);
  buffer_.resize(before + length);
  checkBlock(std::string_view(buffer_).substr(before));
  return length > 0;
}

void LineReader::checkBlock(std::string_view block) {
  const std::size_t value = std::hash<std::string_view>()(block);
  if (noted_ && !block.empty()) {
    noted_->blocks.push_back(value);
    noted_->size += static_cast<off_t>(block.size());
  } else if (expected_ && expected_->blocks[block_++] != value) {
    throw InputError(name_ + " has changed since it was checked, so the rest of it is not sent");
  }
}

bool LineReader::next(std::string& line) {
  std::size_t end = buffer_.find('\n', at_);
  while (end == std::string::npos) {
    const std::size_t searched = buffer_.size() - at_;
    if (!fill()) break;
    end = buffer_.find('\n', searched);
  }
  if (end == std::string::npos && at_ == buffer_.size()) return false;
  const std::size_t length = std::min(end, buffer_.size()) - at_;
  line.assign(buffer_, at_, length);
  const std::size_t whole = length + (end != std::string::npos);
  at_ += whole;
  offset_ += static_cast<off_t>(whole);
  ++number_;
  return true;
}

void LineReader::seek(off_t offset, std::size_t linesBefore) {
  off_t begin = offset_ - static_cast<off_t>(at_);  // of what is in the buffer
  if (offset < begin || offset >= begin + static_cast<off_t>(buffer_.size())) {
    block_ = static_cast<std::size_t>(offset) / blockSize;
    begin = static_cast<off_t>(block_ * blockSize);
    if (lseek(fd_, begin, SEEK_SET) < 0) throw InputError(name_ + ": " + strerror(errno));
    buffer_.clear();
    at_ = 0;
    fill();
  }
  at_ = static_cast<std::size_t>(offset - begin);
  offset_ = offset;
  number_ = linesBefore;
}

std::string LineReader::complaint(const Complaint& complaint) const {
  std::string text = placeText(name_, number_) + ":";
  if (complaint.column != 0) text += std::to_string(complaint.column) + ":";
  return text + " " + complaint.reason;
}

CheckedFiles::CheckedFiles(const std::vector<std::string>& files, const InputOptions& options,
                           std::vector<std::string>& complaints)
    : files_(files), contents_(files.size()), allowAbort_(options.allowAbort) {
  for (std::size_t file = 0; file < files_.size(); ++file) {
    try {
      check(file, complaints);
    } catch (const InputError& error) {
      complaints.push_back(error.what());
    }
  }
  for (const auto& [name, queue] : queues_) {
    if (!queue.used) complaints.push_back(queue.announcedAt + neverUsed);
  }
  for (const std::string& queue : std::vector(unannounced_)) announce(queue);
}

void CheckedFiles::check(std::size_t file, std::vector<std::string>& complaints) {
  LineReader reader(files_[file], contents_[file]);
  std::string line;
  std::size_t index = 0;
  for (off_t offset = 0; reader.next(line); offset = reader.offset()) {
    if (blankLine(line)) continue;
    const Place place{file, index++, offset, reader.number() - 1};
    try {
      const Step step = parseCommandLine(line, {allowAbort_});
      if (!step.announcement()) {
        enter(step.queue, place);
        continue;
      }
      ++announcements_;
      Queue& queue = queues_[step.queue];
      if (queue.announcedAt.empty()) {
        queue.announcedAt = placeText(reader.name(), reader.number());
      }
      announce(step.queue, &place);
    } catch (const Complaint& complaint) {
      complaints.push_back(reader.complaint(complaint));
    }
  }
}

void CheckedFiles::enter(const std::string& name, const Place& place) {
  ++commands_;
  Queue& queue = queues_[name];
  queue.used = true;
  if (queue.waiting.empty()) unannounced_.push_back(name);
  if (!queue.waiting.empty() && queue.waiting.back().endsBefore(place)) {
    ++queue.waiting.back().steps;
  } else {
    queue.waiting.push_back({place, 1});
  }
}

// By the line at `place`, or at the end of all files.
void CheckedFiles::announce(const std::string& name, const Place* place) {
  std::erase(unannounced_, name);
  std::vector<Slice> waiting = std::move(queues_[name].waiting);
  queues_[name].waiting.clear();
  if (waiting.empty()) return;
  if (place && waiting.size() == 1 && waiting.back().endsBefore(*place)) {
    ++waiting.back().steps;
    if (!batches_.empty() && batches_.back().slices.back().endsBefore(waiting.front().first) &&
        batches_.back().queue == name) {
      batches_.back().slices.back().steps += waiting.front().steps;
      return;
    }
  }
  batches_.push_back({name, std::move(waiting)});
}

std::optional<Step> CheckedFiles::next() {
  if (batch_ == batches_.size()) return std::nullopt;
  if (slice_ < batches_[batch_].slices.size()) return nextOfSlice();
  Step step;
  step.queue = batches_[batch_].queue;
  ++batch_;
  slice_ = 0;
  return step;
}

std::optional<Step> CheckedFiles::nextOfSlice() {
  const Slice& slice = batches_[batch_].slices[slice_];
  const std::size_t file = slice.first.file;
  if (!reader_ || readerFile_ != file) {
    reader_ = std::make_unique<LineReader>(files_[file], std::as_const(contents_[file]));
    readerFile_ = file;
  }
  if (taken_ == 0 && reader_->offset() != slice.first.offset) {
    reader_->seek(slice.first.offset, slice.first.linesBefore);
  }
  std::string line;
  do {
    const bool another = reader_->next(line);
    LUMO_ASSERT(another, "a slice's lines are where they were");
  } while (blankLine(line));
  Step step = parseCommandLine(line, {allowAbort_, requestsSkipped_});
  step.line = reader_->number();
  if (++taken_ == slice.steps) {
    taken_ = 0;
    ++slice_;
  }
  return step;
}

StreamedFiles::StreamedFiles(const std::vector<std::string>& files, const InputOptions& options)
    : files_(files), lineOptions_{options.allowAbort, false} {}

std::optional<Step> StreamedFiles::next() {
  std::string line;
  while (file_ < files_.size()) {
    if (!reader_) reader_ = std::make_unique<LineReader>(files_[file_]);
    if (!reader_->next(line)) {
      reader_ = nullptr;
      ++file_;
      continue;
    }
    if (blankLine(line)) continue;
    try {
      Step step = parseCommandLine(line, lineOptions_);
      step.line = reader_->number();
      if (!step.announcement()) {
        used_[step.queue] = true;
        idleAnnouncements_.erase(step.queue);
      } else if (!used_[step.queue]) {
        idleAnnouncements_.emplace(step.queue, placeText(reader_->name(), reader_->number()));
      }
      return step;
    } catch (const Complaint& complaint) {
      throw InputError(reader_->complaint(complaint));
    }
  }
  checkAnnouncements();
  return std::nullopt;
}

void StreamedFiles::checkAnnouncements() const {
  if (!idleAnnouncements_.empty()) {
    throw InputError(idleAnnouncements_.begin()->second + neverUsed);
  }
}

bool readableTwice(const std::vector<std::string>& files) {
  return std::all_of(files.begin(), files.end(), [](const std::string& file) {
    struct stat status;
    // What is not there is told by whoever opens it.
    return file != "-" &&
           (stat(file.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
  });
}

}  // namespace Norvctl
