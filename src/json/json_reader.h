/// Reading JSON without errors.
#ifndef VEMK_JSON_JSON_READER_H
#define VEMK_JSON_JSON_READER_H

#include <cstddef>

struct json_object;

namespace vemk {

/// A JSON value. A missing key, a wrong type or an index out of range gives null or 0, never an
/// error.
///
/// The daemon calls get_string() and is_null(). The other operations are by design without a use:
/// they complete the reader for future code.
///
/// Threading: one thread at a time, as the value itself.
/// Ownership: a reader that parsed its text owns the value. Any other one borrows the value, and is
///   valid only as long as the reader or the object that it came from.
class json_reader {
public:
  /// Borrows an object, which may be null.
  explicit json_reader(json_object *value);

  /// Parses a zero-terminated text. Null text or text that is not JSON makes a null reader.
  explicit json_reader(const char *text);

  json_reader(const json_reader &) = delete;
  json_reader &operator=(const json_reader &) = delete;

  ~json_reader();

  bool is_null() const;

  /// The number of elements; 0 when this is not an array.
  std::size_t array_length() const;

  /// Borrows an element.
  json_reader at(std::size_t index) const;

  /// A copy of an element's string, for the caller to free(). Null as well when it is empty.
  char *string_at(std::size_t index) const;

  int int_at(std::size_t index) const;

  /// Borrows an object's member.
  json_reader member(const char *key) const;

  int get_int(const char *key) const;

  /// A member's string, or the JSON text of a member of another type. The text belongs to the value
  /// and lives as long. Null when the member is missing or JSON null.
  const char *get_string(const char *key) const;

private:
  json_object *find(const char *key) const;
  json_object *element(std::size_t index) const;

  json_object *object;
  bool owned;
};

} // namespace vemk

#endif
