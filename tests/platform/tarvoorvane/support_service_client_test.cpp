// The binary contract: where things lie. A device maker's library is built from the same declarations, but
// not necessarily from the same header.
#include "platform/support_service_client.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

namespace TarvoOrvane {
namespace {

using FastSupport::CallStatus;
using FastSupport::ReceiveResult;
using FastSupport::Ticket;
using Utils::LoggerManager;
using Utils::Optional;

class RecordingLogger final : public LoggerManager {
 public:
  void Reserved1() override { ADD_FAILURE() << "first place called"; }
  void Reserved2() override { ADD_FAILURE() << "second place called"; }
  void Log(int level, const std::string& text) override { line = std::to_string(level) + " " + text; }

  std::string line;
};

TEST(BinaryContractTest, LogStandsThirdInTheVirtualTable) {
  RecordingLogger logger;
  LoggerManager* const object = &logger;
  using LogFunction = void (*)(LoggerManager*, int, const std::string&);
  const void* const memory = object;
  LogFunction* table = nullptr;
  std::memcpy(&table, memory, sizeof table);
  table[2](object, 4, "text");
  EXPECT_EQ(logger.line, "4 text");
}

template <typename Member, typename Record>
size_t OffsetIn(const Record& record, const Member& member) {
  return static_cast<size_t>(reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&record));
}

unsigned char FirstByteOf(const Optional<std::string>& value) {
  const void* const memory = &value;
  unsigned char byte = 0;
  std::memcpy(&byte, memory, 1);
  return byte;
}

TEST(BinaryContractTest, TheOptionalHasItsFlagFirstAndItsValueBehind) {
  const Optional<std::string> full(std::string("value"));
  EXPECT_EQ(FirstByteOf(full), 1);
  EXPECT_EQ(OffsetIn(full, *full), alignof(std::string));
  EXPECT_EQ(sizeof(full), alignof(std::string) + sizeof(std::string));
  EXPECT_EQ(FirstByteOf(Optional<std::string>()), 0);
}

TEST(BinaryContractTest, RecordsKeepTheirFieldOrder) {
  const Ticket ticket;
  EXPECT_EQ(OffsetIn(ticket, ticket.token), 0u);
  EXPECT_EQ(OffsetIn(ticket, ticket.apps), sizeof(std::string));

  const CallStatus status;
  EXPECT_EQ(OffsetIn(status, status.hasFail), 0u);
  EXPECT_EQ(OffsetIn(status, status.error), 4u);
  EXPECT_EQ(OffsetIn(status, status.errorMsg), 8u);

  const ReceiveResult result{};
  EXPECT_EQ(OffsetIn(result, result.request), 0u);
  EXPECT_EQ(OffsetIn(result, result.status), sizeof(Optional<Ticket>));
  EXPECT_EQ(sizeof(Optional<Ticket>), 8 + sizeof(Ticket));

  const Utils::CurlHttpPost form;
  EXPECT_EQ(OffsetIn(form, form.first), 0u);
  EXPECT_EQ(OffsetIn(form, form.last), sizeof form.first);
  EXPECT_EQ(form.first, nullptr);
  EXPECT_EQ(form.last, nullptr);
}

TEST(BinaryContractTest, TheClientIsOnePointerAndTheAnswersAreZeroAndOne) {
  EXPECT_EQ(sizeof(FastSupport::FastSupportClient), sizeof(void*));
  EXPECT_EQ(FastSupport::FastSupportClient::kAccepted, 0);
  EXPECT_EQ(FastSupport::FastSupportClient::kRejected, 1);
}

TEST(BinaryContractTest, TheOptionalCopiesMovesAndDropsItsValue) {
  Optional<std::string> first(std::string(100, 'a'));
  Optional<std::string> copy(first);
  EXPECT_EQ(*copy, *first);
  Optional<std::string> moved(std::move(copy));
  EXPECT_EQ(moved->size(), 100u);
  moved = Optional<std::string>();
  EXPECT_FALSE(moved);
  moved = first;
  EXPECT_EQ(*moved, *first);
}

}  // namespace
}  // namespace TarvoOrvane
