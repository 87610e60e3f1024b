#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fakes/temporary_folder.h"
#include "module_bus/bus_folder.h"

namespace vemk {
namespace {

using ::testing::HasSubstr;

class BusFolderTest : public ::testing::Test {
protected:
  BusFolderTest() { unsetenv("MODULE_BUS_DIR"); }
  ~BusFolderTest() override { unsetenv("MODULE_BUS_DIR"); }

  template<typename error_t>
  static std::string said(const std::function<void()> &open) {
    try {
      open();
    } catch (const error_t &error) {
      return error.what();
    }
    return "accepted";
  }

  static std::string refusal(const std::string &folder, bus_role role = bus_role::module) {
    return said<bus_error>([&] { open_bus_folder(folder, role); });
  }

  /// What a client is told that has to wait for one of the folders.
  static std::string missing(const std::vector<std::string> &folders) {
    return said<bus_folder_missing>([&] { first_usable_folder(folders, bus_role::client); });
  }

  static void make_folder(const std::string &path, mode_t mode) {
    std::filesystem::create_directory(path);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }

  static mode_t mode_of(const std::string &path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777;
  }

  const temporary_folder temporary;
  const std::string base = temporary.path();
  const std::string folder = base + "/bus";
  const std::string open_to_all = base + "/open";
  const std::string own = base + "/own";
};

// One that is not there is made with mode 0700; module and client open it again.
TEST_F(BusFolderTest, IsMadeForItsUserAloneAndUsedAgain) {
  EXPECT_EQ(open_bus_folder(folder, bus_role::module), folder);
  EXPECT_EQ(mode_of(folder), 0700U);
  EXPECT_EQ(open_bus_folder(folder, bus_role::module), folder);
  EXPECT_EQ(open_bus_folder(folder, bus_role::client), folder);
}

// A client is told "is not there", and how to name another; the folder is not made.
TEST_F(BusFolderTest, IsNeverMadeByAClient) {
  // A look at another user's daemon left a bus folder behind, in which nobody ever answered.
  EXPECT_EQ(missing({folder}), "bus folder " + folder +
                                   " is not there; see that the module runs, or name another with "
                                   "MODULE_BUS_DIR (vemkctl: --bus)");
  EXPECT_FALSE(std::filesystem::exists(folder));
  open_bus_folder(folder, bus_role::module);
  EXPECT_EQ(open_bus_folder(folder, bus_role::client), folder);
}

// Of a list a client takes the folder that a module of its user would use, there or not yet.
TEST_F(BusFolderTest, OfAClientIsThatOfAModuleOfItsUser) {
  const std::string first = base + "/first";
  const std::string impossible = base + "/missing/bus";
  open_bus_folder(own, bus_role::module);
  EXPECT_EQ(first_usable_folder({impossible, own}, bus_role::client), own);
  EXPECT_THAT(missing({first, own}), HasSubstr(first + " is not there; see"));
  open_bus_folder(first, bus_role::module);
  EXPECT_EQ(first_usable_folder({first, own}, bus_role::client), first);
}

// Both are named: that of the user is not there, and the system's cannot be used.
TEST_F(BusFolderTest, IsNamedToAClientWithTheOneBeforeItThatCannotBeUsed) {
  make_folder(open_to_all, 0777);
  EXPECT_EQ(missing({open_to_all, base + "/own"}),
            "bus folder " + base + "/own is not there, and bus folder " + open_to_all +
                " is open to other users (mode 0777); see that the module runs, or name another "
                "with MODULE_BUS_DIR (vemkctl: --bus)");
}

// An empty name means MODULE_BUS_DIR; the caller's own name goes before it.
TEST_F(BusFolderTest, IsNamedByTheEnvironmentUnlessTheCallerNamesOne) {
  setenv("MODULE_BUS_DIR", (base + "/environment").c_str(), 1);
  EXPECT_EQ(open_bus_folder("", bus_role::module), base + "/environment");
  EXPECT_EQ(open_bus_folder(base + "/caller", bus_role::module), base + "/caller");
}

// Modes 0755, 0750, 0701 and 0770 are refused with "chmod 700" and kept.
TEST_F(BusFolderTest, IsRefusedWhenOthersMayEnterAndIsNotChanged) {
  for (const mode_t mode : {0755U, 0750U, 0701U, 0770U}) {
    make_folder(folder, mode);
    EXPECT_THAT(refusal(folder), HasSubstr("chmod 700"));
    EXPECT_THAT(refusal(folder, bus_role::client), HasSubstr("chmod 700"));
    EXPECT_EQ(mode_of(folder), mode);
  }
}

// "is a symbolic link; name the folder", also for a link with "//" behind it.
TEST_F(BusFolderTest, IsRefusedWhenItIsASymbolicLinkWithOrWithoutASlashBehindIt) {
  open_bus_folder(folder, bus_role::module);
  std::filesystem::create_directory_symlink(folder, base + "/link");
  EXPECT_THAT(refusal(base + "/link"), HasSubstr("is a symbolic link; name the folder"));
  EXPECT_THAT(refusal(base + "/link//"), HasSubstr("is a symbolic link; name the folder"));
}

// A folder of user 65534 is refused to a module of root and open to a client of root.
TEST_F(BusFolderTest, OfAnotherUserIsForClientsOfRootOnly) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give a folder away";
  open_bus_folder(folder, bus_role::module);
  ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
  EXPECT_THAT(refusal(folder), HasSubstr("belongs to user 65534, not to user 0; run as that user"));
  EXPECT_EQ(open_bus_folder(folder, bus_role::client), folder);
}

// "No such file or directory; make it with" and "is not a folder; name another".
TEST_F(BusFolderTest, ThatCannotBeMadeIsRefusedWithTheReason) {
  EXPECT_THAT(refusal(base + "/missing/bus"), HasSubstr("No such file or directory; make it with"));
  EXPECT_THAT(refusal(temporary.write("file", "x")), HasSubstr("is not a folder; name another"));
}

// The first of a list that exists or can be made for its user alone; none of them is a bus_error.
TEST_F(BusFolderTest, FallsBackToTheNextOneThatMayBeTrusted) {
  make_folder(open_to_all, 0777);
  EXPECT_EQ(first_usable_folder({base + "/missing/bus", open_to_all, own}, bus_role::module), own);
  EXPECT_EQ(first_usable_folder({own, open_to_all}, bus_role::module), own);
  EXPECT_THROW(first_usable_folder({base + "/missing/bus", open_to_all}, bus_role::module),
               bus_error);
}

// "@bus" in the folder at hand becomes its absolute path.
TEST_F(BusFolderTest, PathIsAbsoluteSoThatItNeverNamesASocketOutsideTheFileSystem) {
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(base);
  const std::string opened = open_bus_folder("@bus", bus_role::module);
  std::filesystem::current_path(here);
  EXPECT_EQ(opened, base + "/@bus");
}

// Module 2 in /run/bus has 2.in, 2.out and 2.lock, and for itself 2.i and 2.o.
TEST_F(BusFolderTest, HoldsTheSocketsAndTheLockOfAModule) {
  EXPECT_EQ(inbox_path("/run/bus", 2), "/run/bus/2.in");
  EXPECT_EQ(outlet_path("/run/bus", 2), "/run/bus/2.out");
  EXPECT_EQ(inner_inbox_path("/run/bus", 2), "/run/bus/2.i");
  EXPECT_EQ(inner_outlet_path("/run/bus", 2), "/run/bus/2.o");
  EXPECT_EQ(lock_path("/run/bus", 2), "/run/bus/2.lock");
}

// A socket path of 107 bytes fits; 2 more are refused with "is 2 bytes too long".
TEST_F(BusFolderTest, TooLongForASocketAddressIsRefused) {
  const std::string longest(107 - std::string("/2.out").size(), 'x');
  EXPECT_EQ(outlet_path(longest, 2).size(), 107U);
  const std::string refused = said<bus_error>([&] { outlet_path(longest + "yz", 2); });
  EXPECT_THAT(refused, HasSubstr("is 2 bytes too long"));
  EXPECT_THAT(refused, HasSubstr("name a shorter one with MODULE_BUS_DIR"));
}

} // namespace
} // namespace vemk
