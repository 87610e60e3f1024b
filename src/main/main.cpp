#include "main/startup.h"

namespace {

// strings(1) finds this text in the program's file; no option prints it.
constexpr char version_text[] = "vemk " VEMK_VERSION;

} // namespace

int main(int argc, char **argv) {
  // A volatile read, which no compiler removes, so that no linker removes the text.
  (void)*static_cast<const volatile char *>(version_text);
  return vemk::run_daemon(argc, argv);
}
