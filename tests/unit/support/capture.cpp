#include "support/capture.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

Capture::Capture() {
    char name[] = "/tmp/capture.XXXXXX";
    file_ = mkostemp(name, O_APPEND | O_CLOEXEC);
    saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (file_ < 0 || saved_ < 0 || unlink(name) < 0 || dup2(file_, STDERR_FILENO) < 0) {
        perror("capture");
        abort();
    }
}

Capture::~Capture() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(file_);
}

std::string Capture::text() const {
    std::string all;
    char part[4096];
    off_t at = 0;
    for (ssize_t got = 0; (got = pread(file_, part, sizeof part, at)) > 0; at += got) {
        all.append(part, static_cast<size_t>(got));
    }
    return all;
}

int Capture::count(const std::string& part) const {
    std::istringstream lines(text());
    int found = 0;
    for (std::string line; std::getline(lines, line);) {
        found += line.find(part) != std::string::npos ? 1 : 0;
    }
    return found;
}
