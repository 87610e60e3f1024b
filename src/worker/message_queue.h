/// The inter-thread message queue.
#ifndef VEMK_WORKER_MESSAGE_QUEUE_H
#define VEMK_WORKER_MESSAGE_QUEUE_H

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "worker/buffer_info.h"

namespace vemk {

/// A first-in first-out queue of whole messages from one producing to one consuming thread. A hook
/// runs after every push and can wake the consumer, so that it need not poll.
///
/// Threading: every operation may be called from any thread; `lock` guards `items` and every call
///   and change of `notify`. `notify` runs on the pushing thread under `lock`, so it must not touch
///   this queue. `lock` is the innermost of the daemon's locks, except the log's, under which no
///   other lock is taken.
/// Ownership: shares each buffer until it is popped; the destructor releases what is left.
/// Errors: a mutex that cannot be locked throws std::system_error; storage that cannot grow throws
///   std::bad_alloc. Both leave the queue unchanged.
struct message_queue_t {
  /// Never blocks; a function that does nothing when nobody listens.
  std::function<void()> notify;
  std::deque<std::shared_ptr<buffer_info_t>> items;
  std::mutex lock;
  /// Bytes of the messages in `items`; `lock` guards it, too.
  std::size_t bytes;

  message_queue_t();

  message_queue_t(const message_queue_t &) = delete;
  message_queue_t &operator=(const message_queue_t &) = delete;

  /// Appends the item, then calls `notify` if it holds a target.
  void push(const std::shared_ptr<buffer_info_t> &item);

  /// Removes and returns the front item; a null pointer at once when there is none. Only take()
  /// distinguishes an empty queue from a null pointer in it.
  std::shared_ptr<buffer_info_t> try_pop();

  /// Removes the front item, if there is one, and calls `handler` with it after `lock` has been
  /// released. Returns whether there was one; a null pointer is an item, too. With an empty handler
  /// the item is lost and std::bad_function_call is thrown.
  bool take(const std::function<void(std::shared_ptr<buffer_info_t>)> &handler);

  /// Replaces `notify`. After the return the old target neither runs nor is called again.
  void set_notify(std::function<void()> callback);

  /// Replaces `notify` by the function that does nothing.
  void reset_notify();

  /// Calls `notify` as push() does.
  void notify_consumer();

  std::size_t payload_bytes();
};

} // namespace vemk

#endif
