#include "module_bus/bus_folder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vemk {

namespace {

constexpr char system_folder[] = "/run/module-bus";
constexpr char name_another[] = "name another with MODULE_BUS_DIR (vemkctl: --bus)";

std::string environment(const char *name) {
  const char *value = std::getenv(name);
  return value ? value : "";
}

std::string user_folder() {
  const std::string runtime = environment("XDG_RUNTIME_DIR");
  if (!runtime.empty() && runtime.front() == '/')
    return runtime + "/module-bus";
  return "/tmp/module-bus-" + std::to_string(geteuid());
}

// A path with a slash at its end would follow a symbolic link. A path that begins with '@' would be
// a socket address outside the file system, open to everybody.
std::string plain_absolute(const std::string &path) {
  std::string plain = std::filesystem::absolute(path).string();
  while (plain.size() > 1 && plain.back() == '/')
    plain.pop_back();
  return plain;
}

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

/// The reason why a process cannot use a folder; empty texts if it can.
struct folder_fault_t {
  std::string what;
  std::string remedy;
  bool is_missing = false;
};

folder_fault_t fault_of(const std::string &path, bus_role role) {
  const std::string folder = "bus folder " + path;
  if (role == bus_role::module && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
    return {folder + " cannot be made: " + std::strerror(errno),
            std::string("make it with mkdir -p -m 700, or ") + name_another};
  struct stat status {};
  const bool is_readable = lstat(path.c_str(), &status) == 0;
  if (!is_readable && role == bus_role::client && errno == ENOENT)
    return {folder + " is not there", std::string("see that the module runs, or ") + name_another,
            true};
  if (!is_readable)
    return {folder + " cannot be read: " + std::strerror(errno), name_another};
  if (S_ISLNK(status.st_mode))
    return {folder + " is a symbolic link",
            "name the folder that it leads to with MODULE_BUS_DIR (vemkctl: --bus)"};
  if (!S_ISDIR(status.st_mode))
    return {folder + " is not a folder", name_another};
  const bool root_client = geteuid() == 0 && role == bus_role::client;
  if (status.st_uid != geteuid() && !root_client)
    return {folder + " belongs to user " + std::to_string(status.st_uid) + ", not to user " +
                std::to_string(geteuid()),
            std::string("run as that user, or ") + name_another};
  if ((status.st_mode & 077) != 0)
    return {folder + " is open to other users (mode " + octal(status.st_mode) + ")",
            std::string("close it with chmod 700, or ") + name_another};
  return {};
}

bool could_be_made(const std::string &path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  return faccessat(AT_FDCWD, parent.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

std::string socket_path(const std::string &folder, int module_id, const char *suffix) {
  std::string path = folder + "/" + std::to_string(module_id) + suffix;
  constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > longest)
    throw bus_error("bus folder " + folder + " is " + std::to_string(path.size() - longest) +
                    " bytes too long for a socket address; name a shorter one with " +
                    "MODULE_BUS_DIR (vemkctl: --bus)");
  return path;
}

} // namespace

std::string open_bus_folder(const std::string &named, bus_role role) {
  const std::string choice = named.empty() ? environment("MODULE_BUS_DIR") : named;
  if (!choice.empty())
    return first_usable_folder({choice}, role);
  return first_usable_folder({system_folder, user_folder()}, role);
}

std::string first_usable_folder(const std::vector<std::string> &folders, bus_role role) {
  std::string refused;
  for (std::size_t i = 0;; ++i) {
    std::string path = plain_absolute(folders[i]);
    const folder_fault_t fault = fault_of(path, role);
    if (fault.what.empty())
      return path;
    const bool is_last = i + 1 == folders.size();
    if (fault.is_missing && (is_last || could_be_made(path)))
      throw bus_folder_missing(fault.what + refused + "; " + fault.remedy);
    if (is_last)
      throw bus_error(fault.what + "; " + fault.remedy);
    refused += ", and " + fault.what;
  }
}

std::string inbox_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".in");
}

std::string outlet_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".out");
}

std::string inner_inbox_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".i");
}

std::string inner_outlet_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".o");
}

std::string lock_path(const std::string &folder, int module_id) {
  return folder + "/" + std::to_string(module_id) + ".lock";
}

} // namespace vemk
