/// Building JSON text.
#ifndef VEMK_JSON_JSON_WRITER_H
#define VEMK_JSON_JSON_WRITER_H

#include <cstdint>

struct json_object;

namespace vemk {

/// Builds a JSON object or array, member by member, and serialises it.
///
/// The daemon builds root objects only. Child writers and values added later are by design without
/// a use: they complete the writer for future code.
///
/// All string arguments are zero-terminated, not null, and copied.
///
/// Threading: one thread at a time for a root writer and its children.
/// Ownership: a root owns its whole tree. A child's value belongs to its parent's tree. Use a child
///   only while its parent lives, and not after its value was replaced there.
/// Errors: none are reported; a value that cannot be made or attached is missing from the text.
class json_writer {
public:
  /// A root object with the members "version", "service", "cmd" and "ap-mac", in this order. A
  /// member whose value is the empty string is left out.
  json_writer(const char *service, const char *cmd, const char *ap_mac, const char *version);

  /// A new array or object inside another writer. In an object it is a member. To an array it is
  /// appended: the key is ignored, and the next slot for scalar values stays the same.
  json_writer(bool as_array, json_writer &enclosing, const char *key);

  static json_writer child_array(json_writer &enclosing, const char *key);
  static json_writer child_object(json_writer &enclosing, const char *key);

  json_writer(const json_writer &) = delete;
  json_writer &operator=(const json_writer &) = delete;

  ~json_writer();

  /// Puts a value into an array's next slot, which then advances (the key is ignored), or as an
  /// object's member. An earlier value there is replaced.
  void add_string(const char *key, const char *value);
  void add_int(const char *key, int value);

  /// The text of the value built so far, in the JSON library's default format. The text is the
  /// writer's, and valid until the next call or the writer's end. Null when there is no memory for
  /// it.
  const char *to_string();

private:
  void put(const char *key, json_object *value);

  json_object *object;
  bool is_array;
  char *text;
  json_writer *parent;
  std::int32_t next_index;
};

} // namespace vemk

#endif
