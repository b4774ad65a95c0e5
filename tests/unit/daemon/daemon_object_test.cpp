#include <gtest/gtest.h>

#include "debug_dat_transmitter.h"

namespace {

template <typename Record, typename First, typename Second>
bool Precedes(First Record::*first, Second Record::*second) {
  const Record record{};
  return static_cast<const void*>(&(record.*first)) < static_cast<const void*>(&(record.*second));
}

// The destructor closes the descriptors in the order of the fields, which others read too.
TEST(DaemonObjectTest, KeepsItsFieldOrderAndStartsClosed) {
  using Daemon = DebugDatTransmitterDaemon;
  EXPECT_TRUE(Precedes(&Daemon::fromWorkerReadFd, &Daemon::toWorkerWriteFd));
  EXPECT_TRUE(Precedes(&Daemon::toWorkerWriteFd, &Daemon::toWorkerReadFd));
  EXPECT_TRUE(Precedes(&Daemon::toWorkerReadFd, &Daemon::fromWorkerWriteFd));
  EXPECT_TRUE(Precedes(&Daemon::fromWorkerWriteFd, &Daemon::transmitterRunning));
  EXPECT_TRUE(Precedes(&Daemon::transmitterRunning, &Daemon::transmitterPid));
  const Daemon daemon;
  EXPECT_EQ(daemon.fromWorkerReadFd, -1);
  EXPECT_EQ(daemon.toWorkerWriteFd, -1);
  EXPECT_EQ(daemon.toWorkerReadFd, -1);
  EXPECT_EQ(daemon.fromWorkerWriteFd, -1);
  EXPECT_FALSE(daemon.transmitterRunning);
}

}  // namespace
