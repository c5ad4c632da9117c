// Processes or threads that only sleep: loads processes|threads COUNT. Prints a line when all are
// there. They end with this, and this with its parent.
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static void* sleep_for_ever(void* unused) {
  (void)unused;
  for (;;) {
    pause();
  }
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: loads processes|threads COUNT\n");
    return 2;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int count = atoi(argv[2]);
  pthread_attr_t small_stack;
  pthread_attr_init(&small_stack);
  pthread_attr_setstacksize(&small_stack, 64 * 1024);
  for (int i = 0; i < count; ++i) {
    if (strcmp(argv[1], "threads") == 0) {
      pthread_t thread;
      if (pthread_create(&thread, &small_stack, sleep_for_ever, NULL) != 0) {
        perror("pthread_create");
        return 1;
      }
      continue;
    }
    const pid_t child = fork();
    if (child < 0) {
      perror("fork");
      return 1;
    }
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      sleep_for_ever(NULL);
    }
  }
  printf("ready\n");
  fflush(stdout);
  sleep_for_ever(NULL);
}
