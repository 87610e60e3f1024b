/// The JSON layer's calls of the library and for memory, under a test's control.
#ifndef VEMK_TESTS_UNIT_JSON_WRAPPED_JSON_H
#define VEMK_TESTS_UNIT_JSON_WRAPPED_JSON_H

#include <cstddef>
#include <string>
#include <vector>

namespace vemk::wrapped_json {

/// The calls that can be made to fail as they do without memory.
enum class call {
  new_object,
  new_array,
  new_string,
  new_int,
  object_add,
  array_add,
  array_put,
  copy_text,
  grow_buffer,
  count,
};

/// Everything works again; empty record.
void reset();

/// The `nth` call of this kind from now on fails, counted from 1, and only that one.
void fail(call kind, int nth = 1);

/// The ways in which values were put into arrays and objects and the roots released, in order:
/// "object_add key", "array_add", "array_put 3", "put" or "put null".
std::vector<std::string> record();

/// How many texts have been given to the parser since reset().
std::size_t texts_parsed();

/// How many copies strdup has made since reset(), and how many of them have not been freed.
std::size_t texts_made();
std::size_t texts_alive();

} // namespace vemk::wrapped_json

#endif
