// The curl helpers. Run in the transmission child. What every transfer of the daemon has in common besides
// the daemon's own options is set here: TLS is verified, http and https only, HTTP/1.1, no redirects, no proxies, no
// signals, no .netrc; and whatever the server sends is bounded.
#include "curl_helpers.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "connection_control.h"
#include "library_log.h"
#include "tls_files.h"

namespace TarvoOrvane {
namespace {

using Utils::CurlFailedException;
using Utils::CurlHandle;

constexpr std::size_t kMaxErrorText = 2UL * CURL_ERROR_SIZE;

/// At libcurl's default of 64 KiB an upload spends half of its time between the chunks. At its greatest, 2 MiB, a chunk
/// has left the processor's second-level cache before it is sent: a fifth more CPU time, by ./bench 1.
constexpr long kUploadBufferBytes = 512L << 10;

/// The system's roots as a folder of hashed names: only those that are needed are read. The one file that
/// holds them all, which libcurl would take by default, costs 27 ms to parse.
constexpr char kSystemRootsFolder[] = "/etc/ssl/certs";

/// AES with the shorter key first where the processor has instructions for it, ChaCha20 where it hasn't.
constexpr char kCiphersForAesHardware[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

/// @throws CurlFailedException with the option's name, when libcurl refuses it.
template <typename Value>
void SetOption(const CurlHandle& handle, const char* name, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle.get(), option, value);
  if (code != CURLE_OK) throw CurlFailedException(code, std::string("Setting ") + name + " failed");
}
#define SET_OPTION(handle, option, value) SetOption(handle, #option, option, value)
#define SET_PEM(handle, option, pem) SetPem(handle, #option, option, pem)

/// What a callback returns, or `failure` where memory runs out: nothing may be thrown through libcurl.
template <typename Result, typename Work>
Result WithoutThrowing(Result failure, const Work& work) {
  try {
    return work();
  } catch (const std::exception&) {
    return failure;
  }
}

/// Appends what the string still may take.
std::size_t AppendToString(char* data, std::size_t size, std::size_t count, void* out) {
  return WithoutThrowing(std::size_t{0}, [&] {
    auto& text = *static_cast<std::string*>(out);
    const std::size_t room = Internal::kMaxAnswerBytes - std::min(text.size(), Internal::kMaxAnswerBytes);
    text.append(data, std::min(size * count, room));
    return std::min(size * count, room);  // less than came ends the transfer with a write error
  });
}

void CheckHandle(const CurlHandle& handle, const char* caller) {
  if (!handle) {
    throw CurlFailedException(CURLE_BAD_FUNCTION_ARGUMENT, std::string(caller) + ": there is no curl handle");
  }
}

/// What a server has sent in one attempt besides the answer's body; libcurl's callbacks look at it.
struct Attempt {
  std::set<curl_socket_t> sockets;  ///< All that libcurl has opened: of two tried at once either may win.
  std::size_t header_bytes = 0;
  std::size_t header_lines = 0;
  std::string fault;  ///< Why a callback has ended the attempt; empty when none has.
};

/// libcurl calls it for each new socket, before it connects.
int PrepareSocket(void* attempt, curl_socket_t socket, curlsocktype) {
  const bool noted = WithoutThrowing(false, [&] {
    if (attempt != nullptr) static_cast<Attempt*>(attempt)->sockets.insert(socket);
    return true;
  });
  if (!noted) return CURL_SOCKOPT_ERROR;
  return Internal::LimitDeadPeer(socket, Internal::kDeadPeerLimit) ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

/// Whether a header line names another transfer coding than "chunked". libcurl undoes the others unasked, up to five
/// inside one another. So some kilobytes can keep it busy for hours, and it doesn't look at its time limits meanwhile.
bool IsUnaskedCoding(std::string_view line) {
  constexpr std::string_view kName = "transfer-encoding:";
  if (line.size() < kName.size() || strncasecmp(line.data(), kName.data(), kName.size()) != 0) return false;
  line.remove_prefix(kName.size());
  constexpr std::string_view kBlanks = " \t\r\n";
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  line = line.substr(0, line.find_last_not_of(kBlanks) + 1);
  const auto is = [line](std::string_view coding) {
    return line.size() == coding.size() && strncasecmp(line.data(), coding.data(), coding.size()) == 0;
  };
  return !is("chunked") && !is("identity");
}

std::string FaultOfHeaderLine(Attempt& attempt, std::string_view line) {
  attempt.header_bytes += line.size();
  ++attempt.header_lines;
  if (attempt.header_bytes > Internal::kMaxHeaderBytes || attempt.header_lines > Internal::kMaxHeaderLines) {
    return "the answer's head lines, with interim answers and trailers, are more than " +
           std::to_string(Internal::kMaxHeaderBytes) + " bytes or " +
           std::to_string(Internal::kMaxHeaderLines) + " lines";
  }
  return IsUnaskedCoding(line) ? "the answer has another transfer coding than chunked" : "";
}

/// libcurl calls it for each line of the head, of interim answers' heads and of the trailers. libcurl keeps each line,
/// with some hundred bytes more, and does not bound the trailers itself.
std::size_t CheckHeaderLine(char* line, std::size_t size, std::size_t count, void* data) {
  return WithoutThrowing(std::size_t{0}, [&] {
    auto& attempt = *static_cast<Attempt*>(data);
    attempt.fault = FaultOfHeaderLine(attempt, {line, size * count});
    return attempt.fault.empty() ? size * count : 0;
  });
}

/// What has come on all of them together; those that libcurl has closed count nothing.
std::uint64_t BytesReceived(const std::set<curl_socket_t>& sockets) {
  std::uint64_t sum = 0;
  for (const curl_socket_t socket : sockets) sum += Internal::BytesReceivedOn(socket);
  return sum;
}

/// libcurl calls it all the time while a transfer runs. No other callback sees what libcurl reads and drops: extensions
/// of chunks, TLS records without content.
int CheckReceivedBytes(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  constexpr int kGoOn = 0;
  constexpr int kEnd = 1;
  return WithoutThrowing(kEnd, [&] {
    auto& attempt = *static_cast<Attempt*>(data);
    if (BytesReceived(attempt.sockets) <= Internal::kMaxReceivedBytes) return kGoOn;
    attempt.fault = "the server has sent more than " + std::to_string(Internal::kMaxReceivedBytes) + " bytes";
    return kEnd;
  });
}

bool HasAesHardware() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("aes") != 0;
#elif defined(__aarch64__)
  return (getauxval(AT_HWCAP) & HWCAP_AES) != 0;
#else
  return false;
#endif
}

bool IsPlaintext(const CurlHandle& handle) {
  const char* url = nullptr;  // what the daemon has set; it stays libcurl's
  curl_easy_getinfo(handle.get(), CURLINFO_EFFECTIVE_URL, &url);
  return url != nullptr && strncasecmp(url, "http://", 7) == 0;
}

/// Gives libcurl a PEM text, or takes back the one of the former attempt.
void SetPem(const CurlHandle& handle, const char* name, CURLoption option, const std::string& pem) {
  // libcurl copies it in any case; it has no way to take a pointer to constant data.
  curl_blob blob{const_cast<char*>(pem.data()), pem.size(), CURL_BLOB_COPY};
  SetOption(handle, name, option, pem.empty() ? nullptr : &blob);
}

/// What is wrong with the system's roots; empty when nothing is. libcurl itself says nothing where there are none.
std::string FaultOfSystemRoots() {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(kSystemRootsFolder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().extension() == ".0") return {};
  }
  return std::string(kSystemRootsFolder) +
         " holds no certificate under a hashed name; install ca-certificates, or " +
         "put the service's authority into ca.pem";
}

/// @return What is wrong with one of them, after it was logged; empty when nothing is.
std::string SetTlsFiles(const CurlHandle& handle, const std::string& folder) {
  Internal::TlsFiles files;
  std::string fault = Internal::LogTlsFaults(Internal::LoadTlsFiles(folder, files));
  if (fault.empty() && files.authorities.empty()) {
    fault = FaultOfSystemRoots();
    if (!fault.empty()) Internal::LogLine(LOG_ERR, fault);
  }
  if (!fault.empty()) return fault;
  SET_PEM(handle, CURLOPT_CAINFO_BLOB, files.authorities);
  SET_PEM(handle, CURLOPT_SSLCERT_BLOB, files.client_certificate);
  SET_PEM(handle, CURLOPT_SSLKEY_BLOB, files.client_key);
  SET_OPTION(handle, CURLOPT_CAPATH, files.authorities.empty() ? kSystemRootsFolder : nullptr);
  return {};
}

/// Whether AppendToString() has cut the answer off: libcurl itself only knows of a failed write.
bool AnswerIsFull(const CurlHandle& handle) {
  const std::string* answer = nullptr;
  curl_easy_getinfo(handle.get(), CURLINFO_PRIVATE, &answer);
  return answer != nullptr && answer->size() >= Internal::kMaxAnswerBytes;
}

/// For the coming transfer; null when it is over.
void SetAttempt(const CurlHandle& handle, Attempt* attempt) {
  const bool is_on = attempt != nullptr;
  SET_OPTION(handle, CURLOPT_SOCKOPTDATA, static_cast<void*>(attempt));
  SET_OPTION(handle, CURLOPT_HEADERDATA, static_cast<void*>(attempt));
  SET_OPTION(handle, CURLOPT_HEADERFUNCTION, is_on ? &CheckHeaderLine : nullptr);
  SET_OPTION(handle, CURLOPT_XFERINFODATA, static_cast<void*>(attempt));
  SET_OPTION(handle, CURLOPT_XFERINFOFUNCTION, is_on ? &CheckReceivedBytes : nullptr);
  SET_OPTION(handle, CURLOPT_NOPROGRESS, is_on ? 0L : 1L);
}

std::string FailureText(const CurlHandle& handle, CURLcode code, const char* detail,
                        const std::string& fault) {
  std::string text = curl_easy_strerror(code);
  if (detail[0] != '\0') text += ": " + Internal::MakePrintable(detail, kMaxErrorText);
  if (!fault.empty()) return text + ": " + fault;
  // libcurl 7.88 says this of a head line above its own limit.
  if (text.find("Out of memory") != std::string::npos) {
    text += ", or one line of the answer's head or trailers was longer than libcurl takes";
  }
  if (code == CURLE_WRITE_ERROR && AnswerIsFull(handle)) {
    text += ": the answer, with those of earlier attempts, is longer than " +
            std::to_string(Internal::kMaxAnswerBytes) + " bytes and was cut off";
  }
  return text;
}

}  // namespace

bool Internal::LimitDeadPeer(int socket, std::chrono::seconds limit) {
  constexpr int kProbes = 4;  // in the second half of the limit
  const auto seconds = static_cast<int>(limit.count());
  const auto set = [socket](int level, int option, int value) {
    return setsockopt(socket, level, option, &value, sizeof value) == 0;
  };
  return set(SOL_SOCKET, SO_KEEPALIVE, 1) && set(IPPROTO_TCP, TCP_KEEPIDLE, seconds / 2) &&
         set(IPPROTO_TCP, TCP_KEEPINTVL, std::max(1, seconds / 2 / kProbes)) &&
         set(IPPROTO_TCP, TCP_KEEPCNT, kProbes) && set(IPPROTO_TCP, TCP_USER_TIMEOUT, seconds * 1000);
}

std::optional<Internal::TransferFault> Internal::PerformTransfer(CurlHandle& handle,
                                                                 const std::string& tls_folder) {
  if (!IsPlaintext(handle)) {
    const std::string fault = SetTlsFiles(handle, tls_folder);
    if (!fault.empty()) return TransferFault{CURLE_SSL_CERTPROBLEM, "No connection was tried: " + fault};
  }
  // Both are this attempt's alone. The handle keeps pointers to them, which are taken back before they go.
  char detail[CURL_ERROR_SIZE] = "";
  Attempt attempt;
  curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, detail);
  SetAttempt(handle, &attempt);
  const CURLcode code = curl_easy_perform(handle.get());
  curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, nullptr);
  SetAttempt(handle, nullptr);
  if (code == CURLE_OK) return std::nullopt;
  return TransferFault{code, FailureText(handle, code, detail, attempt.fault)};
}

namespace Utils {

void CurlSetupWriteToString(CurlHandle& handle, std::string& out) {
  CheckHandle(handle, "CurlSetupWriteToString");
  SET_OPTION(handle, CURLOPT_WRITEFUNCTION, &AppendToString);
  SET_OPTION(handle, CURLOPT_WRITEDATA, static_cast<void*>(&out));
  SET_OPTION(handle, CURLOPT_PRIVATE, static_cast<void*>(&out));
  SET_OPTION(handle, CURLOPT_NOSIGNAL, 1L);
  SET_OPTION(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  SET_OPTION(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  SET_OPTION(handle, CURLOPT_DEFAULT_PROTOCOL, "https");
  SET_OPTION(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  SET_OPTION(handle, CURLOPT_PROXY, "");
  SET_OPTION(handle, CURLOPT_FOLLOWLOCATION, 0L);
  SET_OPTION(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  SET_OPTION(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  SET_OPTION(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  SET_OPTION(handle, CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  SET_OPTION(handle, CURLOPT_CAPATH, kSystemRootsFolder);
  SET_OPTION(handle, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  SET_OPTION(handle, CURLOPT_SOCKOPTFUNCTION, &PrepareSocket);
  // PrepareSocket() sees new sockets only. And to a server that refuses "Expect" libcurl repeats the request, even on a
  // connection that has a part of the body on its way.
  SET_OPTION(handle, CURLOPT_FORBID_REUSE, 1L);
  // The request still says that it would wait for "100 Continue", but it doesn't: a server that refuses an
  // upload says so at any time, and libcurl stops sending then.
  SET_OPTION(handle, CURLOPT_EXPECT_100_TIMEOUT_MS, 0L);
  SET_OPTION(handle, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
  if (HasAesHardware()) SET_OPTION(handle, CURLOPT_TLS13_CIPHERS, kCiphersForAesHardware);
}

void CurlPerform(CurlHandle& handle) {
  CheckHandle(handle, "CurlPerform");
  if (const auto fault = Internal::PerformTransfer(handle, Internal::kTlsFolder)) {
    throw CurlFailedException(fault->code, "CurlPerform: " + fault->text);
  }
}

void CurlSlistAppend(CurlHeaderList& list, const std::string& line) {
  if (line.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    // It would end the line on the wire and begin another. Not quoted: it may hold a credential.
    throw std::invalid_argument("CurlSlistAppend: the header line has a CR, LF or NUL character");
  }
  curl_slist* extended = curl_slist_append(list.get(), line.c_str());
  if (extended == nullptr) throw std::runtime_error("CurlSlistAppend: out of memory");
  // In this order: had it failed, the list would still be the caller's.
  static_cast<void>(list.release());  // curl_slist_append() kept the head, unless the list was empty
  list.reset(extended);
}

void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value) {
  if (option != CURLFORM_FILE && option != CURLFORM_COPYCONTENTS) {
    throw CurlFormFailedException(
        CURL_FORMADD_UNKNOWN_OPTION,
        "CurlHttpPostAdd: only CURLFORM_FILE and CURLFORM_COPYCONTENTS are supported");
  }
  if (name.find('\0') != std::string::npos || value.find('\0') != std::string::npos) {
    // libcurl would cut it there without a word.
    throw CurlFormFailedException(CURL_FORMADD_NULL,
                                  "CurlHttpPostAdd: the name or value has a NUL character");
  }
  curl_httppost* first = form.first.get();
  const CURLFORMcode code =
      curl_formadd(&first, &form.last, CURLFORM_COPYNAME, name.c_str(), option, value.c_str(), CURLFORM_END);
  // Also after a failure: the parts that were added before stay the form's.
  if (first != form.first.get()) {
    static_cast<void>(form.first.release());
    form.first.reset(first);
  }
  if (code != CURL_FORMADD_OK) {
    throw CurlFormFailedException(code, "CurlHttpPostAdd: curl_formadd() failed for part \"" +
                                            Internal::MakePrintable(name, 64) + "\"");
  }
}

}  // namespace Utils
}  // namespace TarvoOrvane
