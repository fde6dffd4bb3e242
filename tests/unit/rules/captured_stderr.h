/// Keeps what is written to standard error while it lives.
#ifndef RV_TEST_RULES_CAPTURED_STDERR_H
#define RV_TEST_RULES_CAPTURED_STDERR_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

class CapturedStderr {
  public:
    CapturedStderr() : saved_(::dup(STDERR_FILENO)), file_(::memfd_create("stderr", MFD_CLOEXEC)) {
        if (saved_ < 0 || file_ < 0 || ::dup2(file_, STDERR_FILENO) < 0) {
            std::abort();
        }
    }
    ~CapturedStderr() {
        (void)::dup2(saved_, STDERR_FILENO);
        (void)::close(saved_);
        (void)::close(file_);
    }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    /// What has been written since the last call.
    std::string take() {
        const off_t size = ::lseek(file_, 0, SEEK_CUR);
        std::string text(static_cast<std::size_t>(size), '\0');
        if (size > 0 && (::pread(file_, text.data(), text.size(), 0) != size ||
                         ::lseek(file_, 0, SEEK_SET) != 0 || ::ftruncate(file_, 0) != 0)) {
            std::abort();
        }
        return text;
    }

  private:
    int saved_;
    int file_;
};

#endif
