#include "hand_over.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "child_process.h"
#include "eventually.h"
#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kLimit = std::size_t{1} << 20;

/// By which only a hung program is not done.
std::int64_t Patience() { return MonotonicMs() + std::chrono::milliseconds(test_support::kPatience).count(); }

class HandOverTest : public testing::Test {
 protected:
  HandOverTest() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
    here_ = UniqueFd(ends[0]);
    there_ = UniqueFd(ends[1]);
  }
  /// What arrives, or the reason why it does not.
  std::string Received(std::size_t limit = kLimit) {
    return ReceiveMessage(there_.get(), limit, Patience(), received_) ? received_.text : ErrorText(errno);
  }

  UniqueFd here_;
  UniqueFd there_;
  Message received_;
};

TEST_F(HandOverTest, MessageArrivesWholeWhateverItsSize) {
  const std::string text(kLimit, 'x');
  std::thread sender([&] { EXPECT_TRUE(SendMessage(here_.get(), text, -1, Patience())); });
  EXPECT_EQ(Received(), text);
  sender.join();
  EXPECT_FALSE(received_.attached.valid());
}

TEST_F(HandOverTest, EmptyMessageIsOne) {
  ASSERT_TRUE(SendMessage(here_.get(), "", -1, Patience()));
  EXPECT_EQ(Received(), "");
}

TEST_F(HandOverTest, MessageAtTheLimitArrivesAndALongerOneDoesNot) {
  ASSERT_TRUE(SendMessage(here_.get(), "12345", -1, Patience()));
  EXPECT_EQ(Received(5), "12345");
  received_ = {};
  ASSERT_TRUE(SendMessage(there_.get(), "123456", -1, Patience()));
  std::swap(here_, there_);
  EXPECT_EQ(Received(5), ErrorText(EMSGSIZE));
}

TEST_F(HandOverTest, DescriptorComesAlongAndIsNotInherited) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const UniqueFd read_end(pipe_ends[0]);
  UniqueFd write_end(pipe_ends[1]);
  ASSERT_TRUE(SendMessage(here_.get(), "text", write_end.get(), Patience()));
  write_end.Close();
  EXPECT_EQ(Received(), "text");
  ASSERT_TRUE(received_.attached.valid());
  EXPECT_NE(fcntl(received_.attached.get(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(write(received_.attached.get(), "!", 1), 1);
  char byte = 0;
  EXPECT_EQ(read(read_end.get(), &byte, 1), 1);
}

TEST_F(HandOverTest, OfManyDescriptorsNoneStaysOpenButOne) {
  const auto before = test_support::OpenDescriptors(getpid());
  const UniqueFd sent(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int three[] = {sent.get(), sent.get(), sent.get()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(three))] = {};
  char byte = 'x';
  iovec piece = {&byte, 1};
  msghdr header = {};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof(control);
  cmsghdr* const attached = CMSG_FIRSTHDR(&header);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(sizeof(three));
  std::memcpy(CMSG_DATA(attached), three, sizeof(three));
  ASSERT_EQ(sendmsg(here_.get(), &header, 0), 1);
  ASSERT_TRUE(SendMessage(here_.get(), "yz", sent.get(), Patience()));
  EXPECT_EQ(Received(), "xyz");
  EXPECT_EQ(test_support::OpenDescriptors(getpid()).size(), before.size() + 2)
      << "the one sent, and one more";
}

TEST_F(HandOverTest, SilentPeerIsNotWaitedForForever) {
  EXPECT_FALSE(ReceiveMessage(there_.get(), kLimit, MonotonicMs() + 20, received_));
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(HandOverTest, PeerThatReadsNothingIsNotWaitedForForever) {
  EXPECT_FALSE(SendMessage(here_.get(), std::string(std::size_t{8} << 20, 'x'), -1, MonotonicMs() + 20));
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(HandOverTest, PeerThatIsGoneIsAnErrorAndNoSignal) {
  there_.Close();
  EXPECT_FALSE(SendMessage(here_.get(), "text", -1, Patience()));
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(HandOverTest, WhatAPeerSaidBeforeItEndedIsHeardThoughItDidNotListen) {
  ASSERT_EQ(write(there_.get(), "unread", 6), 6);
  ASSERT_TRUE(SendMessage(here_.get(), "no", -1, Patience()));
  here_.Close();
  EXPECT_EQ(Received(), "no");
}

TEST_F(HandOverTest, PeerThatEndsWithoutAWordOrAnEarIsAnError) {
  ASSERT_EQ(write(there_.get(), "unread", 6), 6);
  here_.Close();
  EXPECT_EQ(Received(), ErrorText(ECONNRESET));
}

}  // namespace
}  // namespace TARVO::SupportForm
