/// make_logs FOLDER FILES BYTES: writes text logs as services of a device leave them, BYTES together, in FILES
/// files of different sizes, a hundred to a folder. The same call gives the same bytes everywhere. `zstd` makes
/// about a sixth of them, as of real logs; one line in 500 holds a secret.
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kSeed = 20240314;
constexpr unsigned kFilesPerFolder = 100;
constexpr unsigned kLinesPerSecret = 500;

template <std::size_t size>
const char* Pick(const char* const (&words)[size], std::uint64_t number) {
  return words[number % size];
}

constexpr const char* kUnits[] = {"storaged",  "syncd",  "mail/smtpd", "mail/cleanup", "indexer",
                                  "scheduler", "backup", "sshd",       "dhcpd",        "updater"};
constexpr const char* kMessages[] = {"connection from %s established",
                                     "connection from %s closed by peer",
                                     "job %s started",
                                     "job %s finished without errors",
                                     "queue %s: 0 entries waiting",
                                     "object %s verified against its checksum",
                                     "lease %s renewed",
                                     "cannot reach %s, will try again in 30 seconds",
                                     "configuration of %s re-read, no changes",
                                     "volume %s: scrub in progress"};
constexpr const char* kPaths[] = {"/api/v1/items", "/api/v1/users",     "/static/app.js", "/static/site.css",
                                  "/index.html",   "/api/v1/sync/poll", "/health"};
constexpr const char* kAgents[] = {"Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0",
                                   "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, "
                                   "like Gecko) Chrome/122.0.0.0 Safari/537.36",
                                   "sync-client/4.2.1 (linux; amd64)", "monitoring-probe/1.0"};
constexpr const char* kModules[] = {"sync.engine", "sync.transfer", "storage.blocks", "auth.session"};
constexpr const char* kEvents[] = {"object stored",   "object fetched", "cache refreshed",
                                   "session renewed", "block written",  "transfer acknowledged"};

/// The lines of one file. The time goes on from line to line.
class LogText {
 public:
  explicit LogText(std::uint64_t seed) : random_(seed), style_(static_cast<unsigned>(seed % 3)) {}

  /// The next line, with its newline; valid until the next call.
  std::string_view NextLine() {
    size_ = 0;
    microseconds_ += random_() % 400'000;
    if (random_() % kLinesPerSecret == 0) {
      AddSecret();
    } else if (style_ == 0) {
      AddServiceLine();
    } else if (style_ == 1) {
      AddWebLine();
    } else {
      AddJsonLine();
    }
    return {line_, size_};
  }

 private:
  std::uint64_t Number(std::uint64_t below) { return random_() % below; }
  unsigned Seconds() const { return static_cast<unsigned>(microseconds_ / 1'000'000); }

  void Add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    const int count = std::vsnprintf(line_ + size_, sizeof(line_) - size_, format, arguments);
    va_end(arguments);
    if (count < 0 || size_ + static_cast<std::size_t>(count) >= sizeof(line_)) {
      throw std::logic_error("a line of a log is too long");
    }
    size_ += static_cast<std::size_t>(count);
  }

  void AddTime() {
    const unsigned seconds = Seconds();
    Add("2024-03-%02uT%02u:%02u:%02u.%06u+00:00 ", 1 + seconds / 86'400 % 28, seconds / 3600 % 24,
        seconds / 60 % 60, seconds % 60, static_cast<unsigned>(microseconds_ % 1'000'000));
  }

  void AddServiceLine() {
    AddTime();
    const std::uint64_t unit = Number(10);
    Add("device-17 %s[%u]: ", Pick(kUnits, unit), static_cast<unsigned>(700 + unit * 37));
    char object[48];
    if (Number(2) == 0) {
      static_cast<void>(std::snprintf(object, sizeof(object), "192.0.2.%u:%u",
                                      static_cast<unsigned>(Number(200)),
                                      static_cast<unsigned>(32'768 + Number(20'000))));
    } else {
      static_cast<void>(std::snprintf(object, sizeof(object), "%08x", static_cast<unsigned>(random_())));
    }
    const std::string message = Pick(kMessages, random_());
    const std::size_t place = message.find("%s");
    Add("%.*s%s%s\n", static_cast<int>(place), message.c_str(), object, message.c_str() + place + 2);
  }

  void AddWebLine() {
    const unsigned seconds = Seconds();
    Add("198.51.100.%u - - [%02u/Mar/2024:%02u:%02u:%02u +0000] ", static_cast<unsigned>(Number(60)),
        1 + seconds / 86'400 % 28, seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
    Add("\"GET %s?id=%u HTTP/1.1\" %u %u \"-\" \"%s\" 0.%03u\n", Pick(kPaths, random_()),
        static_cast<unsigned>(Number(100'000)), Number(20) == 0 ? 404U : 200U,
        static_cast<unsigned>(Number(20'000)), Pick(kAgents, random_()), static_cast<unsigned>(Number(100)));
  }

  void AddJsonLine() {
    Add("{\"time\":\"");
    AddTime();
    line_[size_ - 1] = '"';
    Add(",\"level\":\"%s\",\"module\":\"%s\",\"msg\":\"%s\",\"object\":\"%012" PRIx64
        "\",\"bytes\":%u,\"ms\":%u}\n",
        Number(30) == 0 ? "warning" : "info", Pick(kModules, random_()), Pick(kEvents, random_()),
        random_() & 0xffff'ffff'ffff, static_cast<unsigned>(Number(65'536)),
        static_cast<unsigned>(Number(50)));
  }

  void AddSecret() {
    AddTime();
    const std::uint64_t secret = random_();
    switch (Number(5)) {
      case 0:
        return Add("device-17 syncd[774]: connecting to postgres://app:%016" PRIx64
                   "@db3.internal:5432/main\n",
                   secret);
      case 1:
        return Add("device-17 proxy[731]: > Authorization: Bearer %016" PRIx64 "%016" PRIx64 "\n", secret,
                   random_());
      case 2:
        return Add("device-17 setup[702]: {\"user\":\"admin\",\"password\":\"%012" PRIx64 "\"}\n",
                   secret >> 16);
      case 3:
        return Add("device-17 backup[922]: upload api_key=%016" PRIx64 " region=eu-1\n", secret);
      default:
        return Add("device-17 backup[922]: AWS_SECRET_ACCESS_KEY=%016" PRIx64 "%016" PRIx64 "%08x\n", secret,
                   random_(), static_cast<unsigned>(random_()));
    }
  }

  std::mt19937_64 random_;
  unsigned style_;  ///< Which kind of service writes this log.
  std::uint64_t microseconds_ = 0;
  char line_[1024] = "";
  std::size_t size_ = 0;
};

void WriteLog(const fs::path& path, std::uint64_t seed, std::uint64_t bytes) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wx"), &std::fclose);
  if (!file) throw std::runtime_error("can't make " + path.string() + ": " + std::strerror(errno));
  LogText text(seed);
  while (bytes > 0) {
    const std::string_view line = text.NextLine().substr(0, bytes);
    if (std::fwrite(line.data(), 1, line.size(), file.get()) != line.size()) {
      throw std::runtime_error("can't write " + path.string() + ": " + std::strerror(errno));
    }
    bytes -= line.size();
  }
  if (std::fflush(file.get()) != 0) {
    throw std::runtime_error("can't write " + path.string() + ": " + std::strerror(errno));
  }
}

void WriteLogs(const fs::path& folder, unsigned files, std::uint64_t bytes) {
  std::uint64_t left = bytes;
  for (unsigned number = 0; number < files; ++number) {
    char name[32];
    static_cast<void>(std::snprintf(name, sizeof(name), "%03u/%05u.log", number / kFilesPerFolder, number));
    const fs::path path = folder / name;
    fs::create_directories(path.parent_path());
    // From 0.5 to 1.5 times the mean, in turn; the last file takes what is left.
    const std::uint64_t size = number + 1 == files ? left : bytes / files * (5 + number * 7 % 11) / 10;
    WriteLog(path, kSeed + number, size);
    left -= size;
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const unsigned long files = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (files == 0) {
    static_cast<void>(std::fprintf(stderr, "usage: make_logs FOLDER FILES BYTES\n"));
    return 2;
  }
  WriteLogs(argv[1], static_cast<unsigned>(files), std::strtoull(argv[3], nullptr, 10));
  return 0;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "make_logs: %s\n", error.what()));
  return 1;
}
