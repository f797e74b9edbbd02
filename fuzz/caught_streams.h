// Standard output and standard error as the code under test writes them, for one
// scope. What goes past the C++ streams is not caught.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace fuzz {

class caught_streams {
public:
    caught_streams()
        : real_out_(std::cout.rdbuf(&out_)), real_err_(std::cerr.rdbuf(&err_))
    {}
    ~caught_streams()
    {
        std::cout.rdbuf(real_out_); // takes a failed state away as well
        std::cerr.rdbuf(real_err_);
    }

    caught_streams(const caught_streams&) = delete;
    caught_streams& operator=(const caught_streams&) = delete;

    std::string out() const { return out_.str(); }
    std::string err() const { return err_.str(); }

    void clear()
    {
        out_.str({});
        err_.str({});
        std::cout.clear();
        std::cerr.clear();
    }

private:
    std::stringbuf out_;
    std::stringbuf err_;
    std::streambuf* real_out_;
    std::streambuf* real_err_;
};

} // namespace fuzz
