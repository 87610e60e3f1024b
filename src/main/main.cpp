#include "main/startup.h"

namespace {

// Who holds nothing but the program's file asks strings(1), because no option prints this.
constexpr char version_text[] = "vemk " VEMK_VERSION;

} // namespace

int main(int argc, char **argv) {
  // A look that no compiler leaves out, so that no linker leaves the text out.
  (void)*static_cast<const volatile char *>(version_text);
  return vemk::run_daemon(argc, argv);
}
