// The binary contract: where things lie. A device maker's library is built from the same declarations, but
// not necessarily from the same header.
#include "platform/support_service_client.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <type_traits>

namespace TarvoOrvane {
namespace {

using FastSupport::CallStatus;
using FastSupport::ReceiveResult;
using FastSupport::Ticket;
using Utils::CurlFailedException;
using Utils::CurlFormFailedException;
using Utils::CurlHandle;
using Utils::CurlHeaderList;
using Utils::CurlHttpPost;
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
std::size_t OffsetIn(const Record& record, const Member& member) {
  return static_cast<std::size_t>(reinterpret_cast<const char*>(&member) -
                                  reinterpret_cast<const char*>(&record));
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

TEST(BinaryContractTest, TheCurlTypesAreWhatTheLibrarysFunctionsTake) {
  static_assert(std::is_same_v<CurlHandle, std::unique_ptr<void, void (*)(void*)>>);
  static_assert(std::is_same_v<CurlHeaderList, std::unique_ptr<curl_slist, void (*)(curl_slist*)>>);
  static_assert(std::is_convertible_v<CurlFailedException*, std::runtime_error*>);
  static_assert(std::is_convertible_v<CurlFormFailedException*, std::runtime_error*>);
  EXPECT_EQ(sizeof(CurlHttpPost),
            sizeof(std::unique_ptr<curl_httppost, void (*)(curl_httppost*)>) + sizeof(void*));
}

TEST(BinaryContractTest, TheClientIsOnePointerAndTheAnswersAreZeroAndOne) {
  EXPECT_EQ(sizeof(FastSupport::FastSupportClient), sizeof(void*));
  EXPECT_EQ(FastSupport::FastSupportClient::kAccepted, 0);
  EXPECT_EQ(FastSupport::FastSupportClient::kRejected, 1);
}

TEST(BinaryContractTest, ErrorsCarryLibcurlsNumberAndTheirText) {
  const CurlFailedException failed(CURLE_COULDNT_CONNECT, "why");
  EXPECT_EQ(failed.code, CURLE_COULDNT_CONNECT);
  EXPECT_STREQ(failed.what(), "why");
  const CurlFormFailedException form_failed(CURL_FORMADD_MEMORY, "why");
  EXPECT_EQ(form_failed.code, CURL_FORMADD_MEMORY);
  EXPECT_STREQ(form_failed.what(), "why");
}

TEST(BinaryContractTest, TheOptionalCopiesMovesAndReleasesItsValue) {
  const auto value = std::make_shared<int>(7);
  {
    Optional<std::shared_ptr<int>> first(value);
    const Optional<std::shared_ptr<int>> copy(first);
    EXPECT_EQ(value.use_count(), 3);
    EXPECT_EQ(**copy, 7);
    Optional<std::shared_ptr<int>> moved(std::move(first));
    EXPECT_EQ(value.use_count(), 3);
    moved = Optional<std::shared_ptr<int>>();
    EXPECT_FALSE(static_cast<bool>(moved));
    EXPECT_EQ(value.use_count(), 2);
    moved = copy;
    EXPECT_EQ(moved->use_count(), 3);
    Optional<std::shared_ptr<int>> none;
    moved = none;
    EXPECT_EQ(value.use_count(), 2);
    const Optional<std::shared_ptr<int>> copy_of_none(none);
    EXPECT_FALSE(static_cast<bool>(copy_of_none));
    none = value;
    EXPECT_EQ(value.use_count(), 3);
    none = {};
  }
  EXPECT_EQ(value.use_count(), 1);
}

}  // namespace
}  // namespace TarvoOrvane
