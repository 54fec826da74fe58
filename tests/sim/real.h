// The calls that the linker has turned aside, for the simulator's own use.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <sys/types.h>

extern "C" {
[[noreturn]] void __real__exit(int code);
[[noreturn]] void __real_abort(void);
int __real_close(int fd);
int __real_pipe2(int* ends, int flags);
pid_t __real_fork(void);
pid_t __real_waitpid(pid_t pid, int* status, int options);
ssize_t __real_read(int fd, void* buffer, size_t size);
ssize_t __real_write(int fd, const void* buffer, size_t size);
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
char* __real_strdup(const char* text);
char* __real_strndup(const char* text, size_t size);
int __real_fclose(FILE* file);
}
