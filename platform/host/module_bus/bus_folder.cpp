#include "module_bus/bus_folder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// A path with a slash at its end would be looked up behind a symbolic link, and one that begins
// with '@' would be a socket address outside the file system, open to everybody.
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

void make_or_trust(const std::string &path, bus_role role) {
  const std::string folder = "bus folder " + path;
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
    throw bus_error(folder + " cannot be made: " + std::strerror(errno) +
                    "; make it with mkdir -p -m 700, or " + name_another);
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0)
    throw bus_error(folder + " cannot be read: " + std::strerror(errno) + "; " + name_another);
  if (S_ISLNK(status.st_mode))
    throw bus_error(folder + " is a symbolic link; name the folder that it leads to with " +
                    "MODULE_BUS_DIR (vemkctl: --bus)");
  if (!S_ISDIR(status.st_mode))
    throw bus_error(folder + " is not a folder; " + name_another);
  const bool root_client = geteuid() == 0 && role == bus_role::client;
  if (status.st_uid != geteuid() && !root_client)
    throw bus_error(folder + " belongs to user " + std::to_string(status.st_uid) +
                    ", not to user " + std::to_string(geteuid()) + "; run as that user, or " +
                    name_another);
  if ((status.st_mode & 077) != 0)
    throw bus_error(folder + " is open to other users (mode " + octal(status.st_mode) +
                    "); close it with chmod 700, or " + name_another);
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
  for (std::size_t i = 0;; ++i) {
    std::string path = plain_absolute(folders[i]);
    try {
      make_or_trust(path, role);
      return path;
    } catch (const bus_error &) {
      if (i + 1 == folders.size())
        throw;
    }
  }
}

std::string inbox_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".in");
}

std::string outlet_path(const std::string &folder, int module_id) {
  return socket_path(folder, module_id, ".out");
}

std::string lock_path(const std::string &folder, int module_id) {
  return folder + "/" + std::to_string(module_id) + ".lock";
}

} // namespace vemk
