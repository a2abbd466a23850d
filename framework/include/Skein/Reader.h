#pragma once

#include <functional>
#include <string_view>
#include <variant>

#include <Lumo/Exception.h>
#include <Skein/TraceFile.h>

namespace Skein {

// A file is not a trace file, or not one that can be read. One line that names the file and says
// what is wrong with it.
class FileError : public Lumo::Exception {
 public:
  using Exception::Exception;
};

struct Address {
  U64 value;
};

// An argument of a record. Texts are views into the record.
using Value = std::variant<bool, char, int, unsigned int, long long, unsigned long long, Address,
                           std::string_view, QNull>;

// A record as it is handed out; valid during the call that does so.
struct Record {
  int id;
  const Site* site;  // the reader's, valid as long as the reader
  unsigned level;    // under which it was logged
  int thread;
  U64 monotonicNs;
  U64 timeNs;  // since 1970-01-01 UTC
  std::string_view raw;

  // The text with its arguments in place, as the text trace writes it.
  void appendText(std::string& out) const;
  // The whole line as the text trace writes it, with its newline.
  void appendLine(std::string& out) const;
  std::vector<Value> arguments() const;
};

// Reads a trace file, also while it is written and after its writers were killed. One thread.
// It reads with ordinary reads and trusts no byte of the file: what makes no sense is skipped and
// counted as damage.
class Reader {
 public:
  // Throws FileError.
  explicit Reader(const std::string& path);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Hands out the records that were committed since the previous call, oldest first, and returns
  // how many there were. Exceptions of `take` pass through; what was not handed out then is lost.
  std::size_t read(const std::function<void(const Record&)>& take);

  // What the header says, as of the last read.
  struct Counters {
    U64 fileSize;
    U64 overwritten;  // records that made room for newer ones
    U64 dropped;      // records that found no place
    U32 pid;          // that opened the file
    bool multiThreaded;
    U64 openedNs;  // since 1970-01-01 UTC
    // Records that were found and not handed out: a block between them and newer ones of their
    // writer is missing.
    U64 behindGaps;
  };
  const Counters& counters() const { return counters_; }
  // A place for each id that the file has room for; index 0 is id 1. Null where nothing is
  // described yet, as far as has been read, and where a descriptor cannot be read.
  const std::vector<std::unique_ptr<Site>>& sites() const { return sites_; }

  const std::string& path() const { return path_; }
  // Empty, or one line on what in the file could not be read.
  std::string problem() const;
  // True when the path meanwhile names another file, or none.
  bool replaced() const;

 private:
  struct Place {  // of a block: what was handed out of it
    U64 sequence = 0;
    U32 offset = 0;
  };

  struct Key {  // of a record in bytes_
    U64 monotonicNs;
    const char* at;
  };

  void checkHeader();
  void readCounters();
  void readSites();
  std::unique_ptr<Site> readSite(U64 entry) const;
  struct Block {  // as one read finds it
    U32 index;
    BlockHeader header;
    bool changed;       // it has records that were not handed out
    const char* bytes;  // of a changed block, up to `committed`
    U32 committed;
    bool damaged;
  };

  std::vector<Block> findBlocks();
  void copyChanged(std::vector<Block>& blocks);
  static void markChainEnds(std::vector<Block>& blocks, std::vector<bool>& shown);
  void takeKeys(const Block& block, bool shown, std::vector<Key>& keys);
  bool recordAt(const char* at, Record& record) const;

  const std::string path_;
  int descriptor_ = -1;
  U64 actualSize_ = 0;
  FileHeader header_{};
  Counters counters_{};
  std::size_t damaged_ = 0;  // records and descriptors that make no sense
  U64 behindGaps_ = 0;
  std::vector<std::unique_ptr<Site>> sites_;
  std::vector<bool> siteDamaged_;
  std::vector<Place> places_;
  std::string bytes_;  // the blocks of one read
  std::string probe_;  // scratch of copyBlock
};

}  // namespace Skein
