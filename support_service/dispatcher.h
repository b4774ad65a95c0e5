/// The service's one writer: a thread that has the book decide, the store remember, and the work carried out, in this
/// order.
///
/// What happens elsewhere (a device's word, an operator's wish, a complete upload) is posted. Whatever was posted while
/// the disk was busy goes into one batch, with one wait for the disk. Who posts is told when it is remembered; until
/// then nothing was promised to anybody. The threads that serve connections never wait for the disk.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "event_log.h"
#include "store.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// Carries out what the book has decided. Called by the dispatcher's thread; must not block.
using WorkSink = std::function<void(Work)>;

class Dispatcher {
 public:
  /// Something that happened. Runs in the dispatcher's thread.
  using Input = std::function<void(TicketBook&)>;
  /// Told what came of it, once and in the dispatcher's thread: with an empty text when it is remembered, else with
  /// what failed, fit for the operator. Nothing of it has happened then. Must not block.
  using Done = std::function<void(const std::string& fault)>;

  /// Starts the thread.
  /// @param store    Lives longer than the dispatcher, which alone writes to it.
  /// @param events   Takes the event lines.
  /// @param metrics  Lives longer than the dispatcher.
  /// @throws StoreError when the store can't be read.
  Dispatcher(const TicketBook::Settings& settings, Store& store, EventSink events, Metrics& metrics);
  /// Close(), if nobody has.
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Who carries out the work from here on; none when empty. Returns once the former one is not called any more.
  void SetWorkSink(WorkSink sink);

  /// Who is told each time that the store has new events; none when empty. Called by the dispatcher's thread; must not
  /// block. Returns once the former one is not called any more.
  void SetNewsSink(std::function<void()> sink);

  /// Takes something up; does not wait. Behind Close() it is told at once that the service shuts down.
  void Post(Input input, Done done = {});

  /// Has the function work on the book, and waits until what it did is remembered. Not for the dispatcher's thread, nor
  /// for one that serves connections.
  /// @return What the function returns.
  /// @throws What the function throws, which must have changed nothing; StoreError when it could not be remembered.
  template <typename Function>
  auto Call(Function function) -> std::invoke_result_t<Function, TicketBook&>;

  /// Ends all streams, remembers what was posted before, and ends the thread. May be called
  /// again.
  void Close();
  [[nodiscard]] bool closed() const;

 private:
  struct Posted {
    Input input;
    Done done;
  };

  void Run();
  std::deque<Posted> AwaitInputs();
  void Handle(const std::deque<Posted>& posted);
  void Remember(const std::vector<Change>& changes);
  void CarryOut(Work work);
  void Recover();
  void Refuse(const std::string& fault);
  void Publish(const std::vector<Change>& changes);

  const EventSink events_;
  Metrics& metrics_;
  Store& store_;
  TicketBook book_;  ///< The thread's alone.

  mutable std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable posted_;
  std::deque<Posted> inputs_;
  bool closed_ = false;

  std::mutex sink_mutex_;  ///< Held while one of the two is called.
  WorkSink sink_;
  std::function<void()> news_;
  std::thread thread_;
};

template <typename Function>
auto Dispatcher::Call(Function function) -> std::invoke_result_t<Function, TicketBook&> {
  using Result = std::invoke_result_t<Function, TicketBook&>;
  // Shared with the dispatcher's thread, which may still be at it when this one has its result.
  const auto task = std::make_shared<std::packaged_task<Result(TicketBook&)>>(std::move(function));
  const auto remembered = std::make_shared<std::promise<std::string>>();
  Post([task](TicketBook& book) { (*task)(book); },
       [remembered](const std::string& fault) { remembered->set_value(fault); });
  const std::string fault = remembered->get_future().get();
  if (!fault.empty()) throw StoreError(fault);
  return task->get_future().get();
}

}  // namespace TarvoOrvane::SupportService
