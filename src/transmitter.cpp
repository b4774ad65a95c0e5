#include "transmitter.h"

#include <unistd.h>

#include <cstddef>
#include <exception>
#include <string>

#include "json_util.h"
#include "logging.h"

namespace TarvoOrvane::Transmitter {

using Utils::CurlFailedException;
using Utils::CurlFormFailedException;
using Utils::CurlHandle;
using Utils::CurlHeaderList;
using Utils::CurlHttpPost;
using Utils::CurlSetOpt;
using Utils::kServiceConfigPath;

namespace {

constexpr char kUploadPath[] = "/orvane/ps_files";
constexpr char kReportPath[] = "/orvane/ps_results";

constexpr long kConnectTimeoutSeconds = 120;
constexpr long kTransferTimeoutSeconds = 1800;  // sized for the upload of a large archive
constexpr int kMaxAttempts = 5;
constexpr unsigned kRetryPauseSeconds = 1;
constexpr std::size_t kLoggedAnswerSize = 256;

void LogRequestFailure(const CurlFailedException& failure, int line) {
  LogAt(LOG_ERR, "%s:%d Request failed, CURLcode=[%d], what=[%s]", __FILE_NAME__, line,
        static_cast<int>(failure.code), failure.what());
}

void LogRequestFailure(const std::exception& failure, int line) {
  LogAt(LOG_ERR, "%s:%d Request failed, what=[%s]", __FILE_NAME__, line, failure.what());
}

/// Runs the transfer until one attempt succeeds or all have failed. What a broken attempt has received stays
/// in front of the next one's answer.
void PerformWithRetries(CurlHandle& handle) {
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    try {
      Utils::CurlPerform(handle);
      return;
    } catch (const CurlFailedException& failure) {
      LogAt(LOG_ERR, "%s:%d curl_easy_perform() failed: CURLcode=[%d], what=[%s]", __FILE_NAME__, __LINE__,
            static_cast<int>(failure.code), failure.what());
    } catch (const std::exception& failure) {
      LogRequestFailure(failure, __LINE__);
    }
    sleep(kRetryPauseSeconds);  // after the last attempt, too
  }
}

/// Whether the server's answer reports success; logs why not.
bool JudgeAnswer(const std::string& response) {
  Json::Value answer;
  if (response.empty() || !Utils::FromString(response, answer)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to parse server resp: %s", response.c_str());
    return false;
  }
  if (Utils::ReportsSuccess(answer)) {
    return true;
  }
  DAEMON_LOG(LOG_ERR, "%s:%d Failed to send form server resp: %s",
             response.substr(0, kLoggedAnswerSize).c_str());
  return false;
}

}  // namespace

DebugFileTransmitter::DebugFileTransmitter(const std::string& token) : token_(token) {
  const Utils::Optional<std::string> serial_number = Utils::GetSerialNumber();
  if (serial_number) {
    serial_number_ = *serial_number;
  } else {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to get serial number");
  }
}

std::string DebugFileTransmitter::GetCssServerUrl() {
  // As GetGrpcServerUrl() in debug_dat_transmitter.cpp: what the two share is in FindServerUrl(). The lines stand in
  // both, because each names the source file of its own look-up.
  Json::Value config(Json::objectValue);
  if (!Utils::FromFile(kServiceConfigPath, config)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to read conf from: [%s]", kServiceConfigPath);
    return "";
  }
  std::string url;
  if (Utils::FindServerUrl(config, "css_server", url)) {
    return url;
  }
  DAEMON_LOG(LOG_ERR, "%s:%d Failed to validate data: [%s]", Utils::ToString(config).c_str());
  return "";
}

bool DebugFileTransmitter::SendRequest(const CurlOptionSetter& set_options, const std::string& path) {
  try {
    // Not tested for null: without a handle the first option can't be set, and that is told.
    CurlHandle handle(curl_easy_init(), &curl_easy_cleanup);
    CurlHeaderList headers(nullptr, &curl_slist_free_all);
    if (!set_options(handle, headers)) {
      DAEMON_LOG(LOG_ERR, "%s:%d Failed to set opt");
      return false;
    }
    Utils::CurlSlistAppend(headers, "AUTH-TOKEN: " + token_);  // behind the caller's own lines
    CurlSetOpt(handle, "CURLOPT_HTTPHEADER", CURLOPT_HTTPHEADER, headers.get());

    std::string url = GetCssServerUrl();
    if (url.empty()) {
      DAEMON_LOG(LOG_ERR, "%s:%d Failed to get css server url");
      return false;
    }
    url += path;  // as they stand: a slash too many or too few is the configuration's
    CurlSetOpt(handle, "CURLOPT_URL", CURLOPT_URL, url.c_str());
    CurlSetOpt(handle, "CURLOPT_CONNECTTIMEOUT", CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    CurlSetOpt(handle, "CURLOPT_TIMEOUT", CURLOPT_TIMEOUT, kTransferTimeoutSeconds);

    std::string response;
    Utils::CurlSetupWriteToString(handle, response);
    PerformWithRetries(handle);
    // By the text alone, whatever the HTTP status: after five failures it is normally empty.
    return JudgeAnswer(response);
  } catch (const CurlFailedException& failure) {
    LogRequestFailure(failure, __LINE__);
  } catch (const std::exception& failure) {
    LogRequestFailure(failure, __LINE__);
  }
  return false;
}

bool DebugFileTransmitter::UploadFile(const std::string& file_path, const Json::Value& apps) {
  if (file_path.empty()) {
    DAEMON_LOG(LOG_ERR, "%s:%d File path is empty");
    return false;
  }
  CurlHttpPost form;  // libcurl uses it uncopied, up to the end of the transfer
  const CurlOptionSetter set_options = [this, &form, file_path, apps](CurlHandle& handle, CurlHeaderList&) {
    try {
      Utils::CurlHttpPostAdd(form, "debug_file", CURLFORM_FILE, file_path);
      Utils::CurlHttpPostAdd(form, "serial_number", CURLFORM_COPYCONTENTS, serial_number_);
      // An element that is no string is sent as jsoncpp makes it one; where it can't, the request fails.
      for (Json::ArrayIndex index = 0; index < apps.size(); ++index) {
        const std::string name = "debug_data_apps[" + std::to_string(index) + "]";
        Utils::CurlHttpPostAdd(form, name, CURLFORM_COPYCONTENTS, apps[index].asString());
      }
      CurlSetOpt(handle, "CURLOPT_HTTPPOST", CURLOPT_HTTPPOST, form.first.get());
      return true;
    } catch (const CurlFormFailedException& failure) {
      DAEMON_LOG(LOG_ERR, "%s:%d Request failed, CURLFORMcode=[%d], what=[%s]",
                 static_cast<int>(failure.code), failure.what());
    } catch (const std::exception& failure) {
      LogRequestFailure(failure, __LINE__);
    }
    return false;
  };
  const bool uploaded = SendRequest(set_options, kUploadPath);
  if (!uploaded) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to upload debug.dat file");
  }
  return uploaded;
}

// It ends as UploadFile() does. The two stay apart because each log line tells the place that it comes from.
bool DebugFileTransmitter::UpdateResult(const Result& result) {
  std::string body;  // libcurl sends it uncopied, up to the end of the transfer
  const CurlOptionSetter set_options = [this, result, &body](CurlHandle& handle, CurlHeaderList& headers) {
    try {
      Json::Value report(Json::objectValue);
      report["status"] = ResultToString(result);
      report["serial_number"] = serial_number_;
      body = Utils::ToString(report);
      CurlSetOpt(handle, "CURLOPT_POSTFIELDS", CURLOPT_POSTFIELDS, body.c_str());
      Utils::CurlSlistAppend(headers, "Content-Type: application/json");
      return true;
    } catch (const CurlFailedException& failure) {
      LogRequestFailure(failure, __LINE__);
    } catch (const std::exception& failure) {
      LogRequestFailure(failure, __LINE__);
    }
    return false;
  };
  const bool updated = SendRequest(set_options, kReportPath);
  if (!updated) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to update result to server");
  }
  return updated;
}

std::string DebugFileTransmitter::ResultToString(const Result& result) {
  switch (result) {
    case kSuccess:
      return "Success";
    case kFailedToGenerateDebugFile:
      return "Failed to generate debug file";
    case kFailedToUploadDebugFile:
      return "Failed to upload debug file to server";
  }
  return "Unknown";
}

}  // namespace TarvoOrvane::Transmitter
