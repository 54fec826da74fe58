// Standard error, caught in a file while an object of this lives.
#pragma once

#include <string>

class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::string text() const;                  // all of it up to now
    int count(const std::string& part) const;  // of lines that contain this

  private:
    int file_;
    int saved_;
};
