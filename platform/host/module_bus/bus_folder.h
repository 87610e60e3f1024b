/// Where the bus lives: one folder that holds the sockets and locks of all its modules.
///
/// Whoever may enter the folder may use the bus, so it has to belong to one user alone.
#ifndef VEMK_MODULE_BUS_BUS_FOLDER_H
#define VEMK_MODULE_BUS_BUS_FOLDER_H

#include <stdexcept>
#include <string>
#include <vector>

namespace vemk {

/// Why the bus cannot be used, in the form "what happened; what to do".
class bus_error : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// No module has made the folder yet that a client looks for; it may look again.
class bus_folder_missing : public bus_error {
public:
  using bus_error::bus_error;
};

/// A module owns sockets in the folder; a client only connects to them.
enum class bus_role { module, client };

/// Finds the folder and returns its absolute path. A module makes it with mode 0700 if it is
/// missing, a client never does.
///
/// The folder is `named`; if that is empty, the environment variable MODULE_BUS_DIR; if that is
/// empty too, /run/module-bus or else a folder of the calling user's own.
/// Errors: bus_error when there is no folder that may be trusted; bus_folder_missing, which names
///   the folders, for a client to which one may yet be made.
std::string open_bus_folder(const std::string &named, bus_role role);

/// Returns the first of the folders that exists or can be made, and may be trusted: no symbolic
/// link, closed to others, and the calling user's own (root may be a client in anybody's). For a
/// client that is the one that a module of the calling user would use, whether it is there or not.
/// Errors: bus_error that names the last one's fault; bus_folder_missing for a client when the one
///   that it would be is not there. REQUIRES: `folders` is not empty.
std::string first_usable_folder(const std::vector<std::string> &folders, bus_role role);

/// Paths of a module in the folder: where it takes messages, where it sends them, the sockets of
/// the messaging library behind these two, which no other process may use, and its lock. Errors:
/// bus_error when the folder's path is too long for a socket address.
std::string inbox_path(const std::string &folder, int module_id);
std::string outlet_path(const std::string &folder, int module_id);
std::string inner_inbox_path(const std::string &folder, int module_id);
std::string inner_outlet_path(const std::string &folder, int module_id);
std::string lock_path(const std::string &folder, int module_id);

} // namespace vemk

#endif
