/*
 * bench_run - run a command with a file on standard input and standard output on
 * /dev/null, without a shell in between, and report each run.
 *
 *   bench_run INPUT RUNS -- COMMAND ARGS...        one line a run: "ms maxrss_kb status"
 *   bench_run -j JOBS INPUT COUNT -- COMMAND ARGS... COUNT runs, JOBS at a time:
 *                                                   one line "seconds failures"
 * The environment is passed on unchanged.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

static double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static pid_t start(const char *input, char **argv)
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, input, O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        fprintf(stderr, "bench_run: %s: %s\n", argv[0], strerror(rc));
        exit(2);
    }
    return pid;
}

int main(int argc, char **argv)
{
    int jobs = 0, a = 1;
    if (argc > 2 && strcmp(argv[1], "-j") == 0) {
        jobs = atoi(argv[2]);
        a = 3;
    }
    if (argc < a + 4 || strcmp(argv[a + 2], "--") != 0) {
        fprintf(stderr, "usage: bench_run [-j JOBS] INPUT RUNS -- COMMAND ARGS...\n");
        return 2;
    }
    const char *input = argv[a];
    int runs = atoi(argv[a + 1]);
    char **cmd = &argv[a + 3];

    if (jobs == 0) {
        for (int i = 0; i < runs; i++) {
            double t0 = now();
            pid_t pid = start(input, cmd);
            int status;
            rusage ru;
            wait4(pid, &status, 0, &ru);
            printf("%.3f %ld %d\n", (now() - t0) * 1000, ru.ru_maxrss, WEXITSTATUS(status));
        }
        return 0;
    }
    int started = 0, running = 0, failures = 0;
    double t0 = now();
    while (started < runs || running > 0) {
        while (running < jobs && started < runs) {
            start(input, cmd);
            started++;
            running++;
        }
        int status;
        if (wait(&status) > 0) {
            running--;
            failures += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
    }
    printf("%.6f %d\n", now() - t0, failures);
    return 0;
}
