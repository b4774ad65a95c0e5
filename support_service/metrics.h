/// What the service counts about itself, for the Prometheus page.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "limit.h"
#include "ticket.h"

namespace prometheus {
class Counter;
class Gauge;
class Histogram;
class Registry;
struct MetricFamily;
template <typename Kind>
class Family;
}  // namespace prometheus

namespace TarvoOrvane::SupportService {

/// Why somebody could not sign in.
enum class SignInRefusal {
  kWrong,   ///< The name or the password.
  kTooMany  ///< Attempts.
};

/// Any thread may call it. Labels are of few values: none holds a serial number, a ticket, a token or an address.
class Metrics {
 public:
  Metrics();
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  /// Something was refused, cut or deleted because of the limit.
  void NoteMet(Limit limit);
  /// An event is remembered.
  void NoteEvent(const Event& event);
  /// An archive is kept.
  void NoteUpload(std::uint64_t bytes);
  /// An upload was answered by this status, or by 0 where it broke off.
  void NoteUploadRefused(unsigned int status);
  /// A request to the API was answered.
  /// @param operation  One of few: its method and its path, with "*" for what differs.
  void NoteRequest(const std::string& operation, unsigned int status);
  void NoteSignInRefused(SignInRefusal why);
  /// The dispatcher is done with a batch.
  void NoteBatch(std::size_t inputs, double seconds);
  /// Somebody begins to follow events, or ends.
  void NoteFollower(bool is_there);

  /// How often the limit was met since the service's start.
  [[nodiscard]] std::uint64_t met(Limit limit) const;
  /// When this object was made: the service's start.
  [[nodiscard]] WallTime started() const { return started_; }
  /// The page in Prometheus' text format.
  /// @param live  What is not counted here.
  [[nodiscard]] std::string Text(std::vector<prometheus::MetricFamily> live) const;

 private:
  const WallTime started_;
  const std::unique_ptr<prometheus::Registry> registry_;
  // Made once, because to look up a label takes a lock; but for the two families, whose labels only a request tells.
  std::array<prometheus::Counter*, std::size(kLimits)> met_{};
  std::map<EventKind, prometheus::Counter*> events_;
  std::map<Outcome, prometheus::Counter*> outcomes_;
  prometheus::Counter* upload_bytes_;
  prometheus::Family<prometheus::Counter>* refused_uploads_;
  prometheus::Family<prometheus::Counter>* requests_;
  std::array<prometheus::Counter*, 2> refused_sign_ins_{};
  prometheus::Histogram* batch_inputs_;
  prometheus::Histogram* batch_seconds_;
  prometheus::Gauge* followers_;
};

}  // namespace TarvoOrvane::SupportService
