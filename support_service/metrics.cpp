#include "metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "api_json.h"
#include "registry.h"

namespace TarvoOrvane::SupportService {
namespace {

using prometheus::BuildCounter;
using prometheus::BuildGauge;
using prometheus::BuildHistogram;

/// The answers to refused uploads, for a label.
const char* ReasonOf(unsigned int status) {
  switch (status) {
    case 0:
      return "broken_off";
    case 400:
    case 415:
      return "malformed";
    case 403:
      return "forbidden";
    case 409:
      return "too_many";
    case 410:
      return "ended";
    case 413:
      return "too_large";
    case 507:
      return "no_room";
    default:
      return "failed";
  }
}

}  // namespace

Metrics::Metrics() : started_(Now().wall), registry_(std::make_unique<prometheus::Registry>()) {
  auto& met = BuildCounter()
                  .Name("support_service_limit_met_total")
                  .Help("How often something was refused, cut or deleted because of a limit.")
                  .Register(*registry_);
  for (const Limit limit : kLimits) {
    met_.at(static_cast<std::size_t>(limit)) = &met.Add({{"limit", ToText(limit)}});
  }
  auto& events = BuildCounter()
                     .Name("support_service_ticket_events_total")
                     .Help("Events of tickets, by kind: deliveries, answers, uploads, reports and ends.")
                     .Register(*registry_);
  for (const EventKind kind : kEventKinds) {
    events_[kind] = &events.Add({{"kind", ApiName(ToText(kind))}});
  }
  auto& outcomes = BuildCounter()
                       .Name("support_service_reports_total")
                       .Help("Devices' reports, by what they say.")
                       .Register(*registry_);
  for (const Outcome outcome : kOutcomes) {
    outcomes_[outcome] = &outcomes.Add({{"outcome", ToText(outcome)}});
  }
  upload_bytes_ = &BuildCounter()
                       .Name("support_service_upload_bytes_total")
                       .Help("Bytes of the archives that were received and kept.")
                       .Register(*registry_)
                       .Add({});
  refused_uploads_ = &BuildCounter()
                          .Name("support_service_uploads_refused_total")
                          .Help("Uploads with a ticket's token that were not kept, by reason.")
                          .Register(*registry_);
  requests_ = &BuildCounter()
                   .Name("support_service_api_requests_total")
                   .Help("Requests to the API, by operation and status.")
                   .Register(*registry_);
  auto& sign_ins = BuildCounter()
                       .Name("support_service_sign_ins_refused_total")
                       .Help("Refused attempts to sign in, by reason.")
                       .Register(*registry_);
  refused_sign_ins_ = {&sign_ins.Add({{"reason", "wrong"}}), &sign_ins.Add({{"reason", "too_many"}})};
  batch_inputs_ =
      &BuildHistogram()
           .Name("support_service_batch_inputs")
           .Help("How many inputs the dispatcher's batches had.")
           .Register(*registry_)
           .Add({}, prometheus::Histogram::BucketBoundaries{0, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000});
  batch_seconds_ =
      &BuildHistogram()
           .Name("support_service_batch_duration_seconds")
           .Help("How long the dispatcher's batches took, with the wait for the disk.")
           .Register(*registry_)
           .Add({}, prometheus::Histogram::BucketBoundaries{0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05,
                                                            0.1, 0.2, 0.5, 1, 2, 5, 10});
  followers_ = &BuildGauge()
                    .Name("support_service_event_followers")
                    .Help("Open streams of server-sent events.")
                    .Register(*registry_)
                    .Add({});
}

Metrics::~Metrics() = default;

void Metrics::NoteMet(Limit limit) { met_.at(static_cast<std::size_t>(limit))->Increment(); }

void Metrics::NoteEvent(const Event& event) {
  const auto count = [](const auto& counters, auto what) {
    const auto counter = counters.find(what);
    if (counter != counters.end()) counter->second->Increment();
  };
  count(events_, event.kind);
  if (event.kind == EventKind::kReported) count(outcomes_, OutcomeOf(event.text));
}

void Metrics::NoteUpload(std::uint64_t bytes) { upload_bytes_->Increment(static_cast<double>(bytes)); }

void Metrics::NoteUploadRefused(unsigned int status) {
  refused_uploads_->Add({{"reason", ReasonOf(status)}}).Increment();
}

void Metrics::NoteRequest(const std::string& operation, unsigned int status) {
  requests_->Add({{"operation", operation}, {"status", std::to_string(status)}}).Increment();
}

void Metrics::NoteSignInRefused(SignInRefusal why) {
  refused_sign_ins_.at(static_cast<std::size_t>(why))->Increment();
}

void Metrics::NoteBatch(std::size_t inputs, double seconds) {
  batch_inputs_->Observe(static_cast<double>(inputs));
  batch_seconds_->Observe(seconds);
}

void Metrics::NoteFollower(bool is_there) { is_there ? followers_->Increment() : followers_->Decrement(); }

std::uint64_t Metrics::met(Limit limit) const {
  return static_cast<std::uint64_t>(met_.at(static_cast<std::size_t>(limit))->Value());
}

std::string Metrics::Text(std::vector<prometheus::MetricFamily> live) const {
  std::vector<prometheus::MetricFamily> families = registry_->Collect();
  std::move(live.begin(), live.end(), std::back_inserter(families));
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace TarvoOrvane::SupportService
