// norvd's looks at a switch, over connections that come and go.

#include <Standin/Server.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "Reader.h"

using namespace Norvd;
using namespace std::chrono_literals;

namespace {

class ReaderTest : public testing::Test {
 protected:
  ReaderTest() { start(0); }

  void start(int port) {
    Standin::Options options;
    options.listen = "127.0.0.1:" + std::to_string(port);
    server_ = std::make_unique<Standin::Server>(options);
    port_ = server_->port();
  }

  // The same daemon, as far as its address goes.
  void restart() {
    server_.reset();
    start(port_);
  }

  Reading look() {
    if (!reader_) {
      reader_.emplace("127.0.0.1", static_cast<U16>(port_), 60s, [this](const Reading& reading) {
        const std::lock_guard guard(mutex_);
        reading_ = reading;
        came_.notify_all();
      });
    }
    std::unique_lock lock(mutex_);
    reading_.reset();
    reader_->start();
    came_.wait(lock, [this] { return reading_.has_value(); });
    return *reading_;
  }

  bool comesToBeLost() {
    const auto until = std::chrono::steady_clock::now() + 60s;
    while (!reader_->lost() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(1ms);
    }
    return reader_->lost();
  }

  std::unique_ptr<Standin::Server> server_;

 private:
  int port_ = 0;
  std::optional<Reader> reader_;
  std::mutex mutex_;
  std::condition_variable came_;
  std::optional<Reading> reading_;
};

}  // namespace

TEST_F(ReaderTest, TheFirstReadingOverAConnectionIsFresh) {
  EXPECT_TRUE(look().fresh);
  for (int i = 0; i < 3; ++i) {
    const Reading reading = look();
    EXPECT_TRUE(reading.live);
    EXPECT_FALSE(reading.fresh);
  }
  for (int i = 0; i < 3; ++i) {
    restart();
    ASSERT_TRUE(comesToBeLost());
    Reading reading = look();
    while (!reading.live) {
      EXPECT_FALSE(reading.fresh) << "there is no reading";
      reading = look();
    }
    EXPECT_TRUE(reading.fresh);
    EXPECT_FALSE(look().fresh);
  }
}

TEST_F(ReaderTest, ADaemonThatIsGoneIsSaid) {
  EXPECT_TRUE(look().live);
  server_.reset();
  ASSERT_TRUE(comesToBeLost());
  const Reading reading = look();
  EXPECT_FALSE(reading.live);
  EXPECT_FALSE(reading.fresh);
  EXPECT_TRUE(reading.error.starts_with("the connection is refused")) << reading.error;
}
