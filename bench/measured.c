/* Runs a command and measures its cost:  bench_measured RESULT COMMAND [ARGUMENT...]
   The program writes one line to the file RESULT: elapsed seconds, processor seconds (user and
   system) and the peak memory of the largest process in kB. The figures include the children that
   the command has waited for. The exit status is that of the command.

   A new process starts with the peak memory of its parent. So this program, which starts the
   command, must be small. */
#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char** environ;

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec * 1e-9;
}

static double seconds(struct timeval time) {
    return (double)time.tv_sec + (double)time.tv_usec * 1e-6;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        fputs("usage: bench_measured RESULT COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    const double start = now();
    pid_t child = 0;
    const int error = posix_spawnp(&child, argv[2], NULL, NULL, argv + 2, environ);
    if (error != 0) {
        fprintf(stderr, "bench_measured: %s: %s\n", argv[2], strerror(error));
        return 127;
    }
    int status = 0;
    struct rusage usage;
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) return 1;
    }
    const double wall = now() - start;
    FILE* const result = fopen(argv[1], "we");
    if (result == NULL) {
        perror(argv[1]);
        return 1;
    }
    fprintf(result, "%.4f %.4f %ld\n", wall, seconds(usage.ru_utime) + seconds(usage.ru_stime),
            usage.ru_maxrss);
    if (fclose(result) != 0) {
        perror(argv[1]);
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
