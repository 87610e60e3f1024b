#include "main/startup.h"

int main(int argc, char **argv) {
  return vemk::run_daemon(argc, argv);
}
