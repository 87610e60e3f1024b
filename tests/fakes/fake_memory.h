/// Memory under a test's control: realloc, calloc, free and operator new.
///
/// A test program that links fake_memory gets those of its own code and the project's counted and,
/// when told, refused; the libraries keep theirs. operator new is the whole program's,
/// but it is only ever refused on the thread that asked for it.
///
/// Threading: the records and refusals belong to the calling thread.
#ifndef VEMK_TESTS_FAKE_MEMORY_H
#define VEMK_TESTS_FAKE_MEMORY_H

#include <cstddef>
#include <string>
#include <vector>

namespace vemk::fake_memory {

/// Empty records, no request numbered for refusal.
void reset();

/// The sizes that realloc and calloc were asked for since reset(), refused ones included.
std::vector<std::size_t> realloc_sizes();
std::vector<std::size_t> calloc_sizes();

/// While one exists, realloc and calloc have no memory for `smallest` bytes or more.
class shortage {
public:
  explicit shortage(std::size_t smallest = 0);
  shortage(const shortage &) = delete;
  shortage &operator=(const shortage &) = delete;
  ~shortage();
};

/// Counts from 0 how often free gets this block, or that of the next calloc.
void watch(const void *block);
void watch_next_calloc();
int frees_of_watched();

/// Every operator new on this thread throws std::bad_alloc for as long as one of these lives.
class refused_new {
public:
  refused_new();
  refused_new(const refused_new &) = delete;
  refused_new &operator=(const refused_new &) = delete;
  ~refused_new();
};

// One request after the other: every realloc, calloc and operator new of this thread, and whatever
// other calls a test program wraps, numbered from 1 in the order in which they come.

struct request_t {
  /// "realloc", "calloc", "new", or the wrapped call's name; empty for none.
  std::string kind;
  std::size_t size;
};

/// Numbers the requests anew and refuses the `nth`, only that one; 0 refuses none.
void refuse_request(std::size_t nth);
/// While one exists, the requests of this thread are numbered.
class numbered_requests {
public:
  numbered_requests();
  numbered_requests(const numbered_requests &) = delete;
  numbered_requests &operator=(const numbered_requests &) = delete;
  ~numbered_requests();
};
/// The one that was refused since the last refuse_request().
request_t refused_request();
/// For a wrapped call that needs memory: numbers it, and says whether it is to fail.
bool refuses(const char *kind, std::size_t size = 0);

} // namespace vemk::fake_memory

#endif
