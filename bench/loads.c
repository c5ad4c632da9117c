// SPDX-License-Identifier: Apache-2.0
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
  return NULL;
}

static void start_thread(void) {
  pthread_attr_t small_stack;
  pthread_attr_init(&small_stack);
  pthread_attr_setstacksize(&small_stack, 64 * 1024);
  pthread_t thread;
  const int error = pthread_create(&thread, &small_stack, sleep_for_ever, NULL);
  if (error != 0) {
    fprintf(stderr, "pthread_create: %s\n", strerror(error));
    exit(1);
  }
}

static void start_process(pid_t parent) {
  const pid_t child = fork();
  if (child < 0) {
    perror("fork");
    exit(1);
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(1);  // it went before it could be followed
    }
    sleep_for_ever(NULL);
  }
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: loads processes|threads COUNT\n");
    return 2;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int threads = strcmp(argv[1], "threads") == 0;
  const int count = atoi(argv[2]);
  const pid_t self = getpid();
  for (int i = 0; i < count; ++i) {
    if (threads) {
      start_thread();
    } else {
      start_process(self);
    }
  }
  printf("ready\n");
  fflush(stdout);
  sleep_for_ever(NULL);
}
