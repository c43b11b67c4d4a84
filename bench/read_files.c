/* Reads every ".info" file of a directory once and discards the content: the minimum cost of a
   start-up scan.  bench_read_files DIRECTORY */
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static long read_file(int directory, const char* name) {
    static char buffer[65536];
    long total = 0;
    ssize_t count;
    int fd = openat(directory, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    while ((count = read(fd, buffer, sizeof buffer)) > 0) total += count;
    close(fd);
    return count < 0 ? -1 : total;
}

static int has_ending(const char* name, const char* ending) {
    size_t length = strlen(name), wanted = strlen(ending);
    return length > wanted && strcmp(name + length - wanted, ending) == 0;
}

int main(int argc, char** argv) {
    long files = 0, bytes = 0;
    struct dirent* entry;
    DIR* directory = argc == 2 ? opendir(argv[1]) : NULL;
    if (directory == NULL) {
        fprintf(stderr, "usage: bench_read_files DIRECTORY\n");
        return 2;
    }
    while ((entry = readdir(directory)) != NULL) {
        long size;
        if (!has_ending(entry->d_name, ".info")) continue;
        size = read_file(dirfd(directory), entry->d_name);
        if (size < 0) {
            perror(entry->d_name);
            return 1;
        }
        ++files;
        bytes += size;
    }
    closedir(directory);
    printf("%ld files, %ld bytes\n", files, bytes);
    return 0;
}
