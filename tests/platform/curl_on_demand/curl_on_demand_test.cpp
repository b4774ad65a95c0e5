#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;

class CurlOnDemandTest : public testing::Test {
 protected:
  void SetUp() override {
    // Has to run a new process and not a fork: whether libcurl is loaded is a matter of the whole process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }

  std::string WriteFile(const std::string& name, const std::string& text) {
    if (!folder_) folder_.emplace();
    return folder_->Write(name, text);
  }

  /// Ends the new process of a death test, in which the test has run from its begin and its end will not.
  [[noreturn]] void EndProcess(int status) {
    folder_.reset();
    _exit(status);
  }

  std::optional<test_support::TemporaryFolder> folder_;
};

bool IsLibcurlLoaded() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/libcurl.so") != std::string::npos) return true;
  }
  return false;
}

std::size_t Append(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

Handle HandleFor(const std::string& path, std::string& received) {
  Handle handle(curl_easy_init(), &curl_easy_cleanup);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_URL, ("file://" + path).c_str()), CURLE_OK);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &Append), CURLE_OK);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &received), CURLE_OK);
  return handle;
}

TEST_F(CurlOnDemandTest, LoadsLibcurlAtTheFirstCall) {
  EXPECT_EXIT(
      {
        if (IsLibcurlLoaded()) EndProcess(1);
        const Handle handle(curl_easy_init(), &curl_easy_cleanup);
        EndProcess(handle != nullptr && IsLibcurlLoaded() ? 0 : 2);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(CurlOnDemandTest, PassesPointersOnAndTransfers) {
  std::string received;
  const Handle handle = HandleFor(WriteFile("file", "some text"), received);
  EXPECT_EQ(curl_easy_perform(handle.get()), CURLE_OK);
  EXPECT_EQ(received, "some text");
}

TEST_F(CurlOnDemandTest, PassesALongOn) {
  std::string received;
  const Handle handle = HandleFor(WriteFile("file", "some text"), received);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L), CURLE_OK);
  EXPECT_EQ(curl_easy_perform(handle.get()), CURLE_OK);
  EXPECT_EQ(received.find("some text"), std::string::npos);
}

TEST_F(CurlOnDemandTest, PassesAFileOffsetOn) {
  std::string received;
  const Handle handle = HandleFor(WriteFile("file", "some text"), received);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_RESUME_FROM_LARGE, curl_off_t{5}), CURLE_OK);
  EXPECT_EQ(curl_easy_perform(handle.get()), CURLE_OK);
  EXPECT_EQ(received, "text");
}

TEST_F(CurlOnDemandTest, HandsBackWhatLibcurlKnows) {
  std::string received;
  const Handle handle = HandleFor("/nowhere", received);
  EXPECT_EQ(curl_easy_setopt(handle.get(), CURLOPT_PRIVATE, &received), CURLE_OK);
  const std::string* kept = nullptr;
  EXPECT_EQ(curl_easy_getinfo(handle.get(), CURLINFO_PRIVATE, &kept), CURLE_OK);
  EXPECT_EQ(kept, &received);
  EXPECT_EQ(curl_easy_perform(handle.get()), CURLE_FILE_COULDNT_READ_FILE);
  EXPECT_STREQ(curl_easy_strerror(CURLE_FILE_COULDNT_READ_FILE), "Couldn't read a file:// file");
}

TEST_F(CurlOnDemandTest, BuildsAFormOfFilesAndValues) {
  curl_httppost* first = nullptr;
  curl_httppost* last = nullptr;
  const std::string path = WriteFile("file", "some text");
  ASSERT_EQ(
      curl_formadd(&first, &last, CURLFORM_COPYNAME, "upload", CURLFORM_FILE, path.c_str(), CURLFORM_END),
      CURL_FORMADD_OK);
  ASSERT_EQ(
      curl_formadd(&first, &last, CURLFORM_COPYNAME, "key", CURLFORM_COPYCONTENTS, "value", CURLFORM_END),
      CURL_FORMADD_OK);
  EXPECT_STREQ(first->name, "upload");
  EXPECT_STREQ(first->contents, path.c_str());
  EXPECT_NE(first->flags & CURL_HTTPPOST_FILENAME, 0);
  EXPECT_STREQ(last->name, "key");
  EXPECT_STREQ(last->contents, "value");
  EXPECT_EQ(first->next, last);
  curl_formfree(first);
}

TEST_F(CurlOnDemandTest, HandsBackWhatIsWrongWithAForm) {
  curl_httppost* first = nullptr;
  curl_httppost* last = nullptr;
  EXPECT_EQ(curl_formadd(&first, &last, CURLFORM_COPYNAME, "twice", CURLFORM_COPYNAME, "twice", CURLFORM_END),
            CURL_FORMADD_OPTION_TWICE);
}

TEST_F(CurlOnDemandTest, BuildsAListOfHeaderLines) {
  curl_slist* list = curl_slist_append(nullptr, "A: 1");
  list = curl_slist_append(list, "B: 2");
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list->data, "A: 1");
  ASSERT_NE(list->next, nullptr);
  EXPECT_STREQ(list->next->data, "B: 2");
  curl_slist_free_all(list);
}

TEST_F(CurlOnDemandTest, CallsTheLibcurlThatAnotherMakersClientLibraryHasInIt) {
  EXPECT_EXIT(
      {
        if (dlopen(VENDOR_CLIENT_PATH, RTLD_NOW | RTLD_LOCAL) == nullptr) EndProcess(1);
        const bool is_the_makers = curl_easy_strerror(CURLE_OK) == std::string("the maker's own libcurl") &&
                                   curl_easy_perform(nullptr) == CURLE_AGAIN && curl_easy_init() == nullptr;
        EndProcess(is_the_makers && !IsLibcurlLoaded() ? 0 : 2);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(CurlOnDemandTest, EveryCallFailsWhereLibcurlCannotBeLoaded) {
  WriteFile("libcurl.so.4", "no library");
  setenv("LD_LIBRARY_PATH", folder_->path().c_str(), 1);
  EXPECT_EXIT(
      {
        curl_httppost* form = nullptr;
        char* url = nullptr;
        const bool all_failed =
            curl_easy_init() == nullptr &&
            curl_easy_setopt(nullptr, CURLOPT_NOBODY, 1L) == CURLE_FAILED_INIT &&
            curl_easy_getinfo(nullptr, CURLINFO_EFFECTIVE_URL, &url) == CURLE_FAILED_INIT &&
            curl_easy_perform(nullptr) == CURLE_FAILED_INIT &&
            curl_easy_strerror(CURLE_FAILED_INIT) == std::string("libcurl can't be loaded") &&
            curl_formadd(&form, &form, CURLFORM_COPYNAME, "name", CURLFORM_END) == CURL_FORMADD_DISABLED &&
            curl_slist_append(nullptr, "line") == nullptr;
        curl_easy_cleanup(nullptr);
        curl_formfree(nullptr);
        curl_slist_free_all(nullptr);
        EndProcess(all_failed && !IsLibcurlLoaded() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  unsetenv("LD_LIBRARY_PATH");
}

}  // namespace
