// TASK [SOCKET_PATH]: runs the task that it is linked with.

#include "task.h"

int main(int argc, char** argv) {
  tidegate::Options options{"tasks"};
  if (argc > 1) options.socket_path = argv[1];
  // begin: with an agent at the default path, `tidegate::Metrics metrics("tasks");`
  tidegate::Metrics metrics(options);
  // end
  RunTask(metrics);
}
