/// The place of the bus: one folder that holds the sockets and locks of all its modules.
///
/// A user who may enter the folder may use the bus, so it must belong to one user alone.
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

/// No module has made the client's folder yet; the client may look again.
class bus_folder_missing : public bus_error {
public:
  using bus_error::bus_error;
};

/// A module owns sockets in the folder; a client only connects to them.
enum class bus_role { module, client };

/// Finds the folder and returns its absolute path. A module makes a missing folder with mode 0700,
/// a client never does.
///
/// The folder is `named`. If that is empty, it is that of the environment variable MODULE_BUS_DIR.
/// If that is empty too, it is /run/module-bus or else a folder of the calling user's own.
/// Errors: bus_error when no folder may be trusted. A client gets bus_folder_missing, which names
///   the folders, when one of them may still be made.
std::string open_bus_folder(const std::string &named, bus_role role);

/// Returns the first of the folders that exists or can be made, and may be trusted. A trusted
/// folder is not a symbolic link, is closed to others, and belongs to the calling user (root may be
/// a client in any user's). For a client that is the folder that a module of the calling user would
/// use, even if it does not exist.
/// Errors: bus_error with the last folder's fault; bus_folder_missing for a client whose folder
///   does not exist. REQUIRES: `folders` is not empty.
std::string first_usable_folder(const std::vector<std::string> &folders, bus_role role);

/// Paths of a module in the folder: the socket where it takes messages, the one where it sends
/// them, and its lock. Behind each of these two sockets is one of the messaging library, for the
/// module's process only. Errors: bus_error when the folder's path is too long for a socket
/// address.
std::string inbox_path(const std::string &folder, int module_id);
std::string outlet_path(const std::string &folder, int module_id);
std::string inner_inbox_path(const std::string &folder, int module_id);
std::string inner_outlet_path(const std::string &folder, int module_id);
std::string lock_path(const std::string &folder, int module_id);

} // namespace vemk

#endif
