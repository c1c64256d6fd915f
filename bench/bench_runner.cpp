// Runs one command with its standard output sent to a file (default /dev/null) and
// prints "<wall seconds> <peak resident KiB> <exit status>" for it: the time from fork to
// the end of wait4, and ru_maxrss of the child alone.
//
//   obx_bench_run [-o FILE] -- program [arguments...]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

int main(int argc, char** argv)
{
    const char* output = "/dev/null";
    int first = 1;
    while (first < argc && std::strcmp(argv[first], "--") != 0) {
        if (std::strcmp(argv[first], "-o") == 0 && first + 1 < argc) {
            output = argv[first + 1];
            first += 2;
        } else {
            std::fprintf(stderr, "usage: %s [-o FILE] -- program [arguments...]\n", argv[0]);
            return 2;
        }
    }
    if (first + 1 >= argc) {
        std::fprintf(stderr, "usage: %s [-o FILE] -- program [arguments...]\n", argv[0]);
        return 2;
    }
    char** command = argv + first + 1;

    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return 2;
    }
    if (child == 0) {
        const int fd = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) _exit(126);
        close(fd);
        execvp(command[0], command);
        _exit(127);
    }
    int status = 0;
    rusage usage;
    std::memset(&usage, 0, sizeof usage);
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("wait4");
            return 2;
        }
    }
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double seconds = static_cast<double>(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
    const int exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::printf("%.3f %ld %d\n", seconds, usage.ru_maxrss, exit_status);
    return 0;
}
