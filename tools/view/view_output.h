// Where a viewer puts the pictures, or the list of them: a file, standard output, or nowhere.
#pragma once

#include <string>
#include <string_view>

class ViewOutput {
public:
    enum class Result { written, readerGone, failed };

    ViewOutput() = default;
    ~ViewOutput();
    ViewOutput(const ViewOutput&) = delete;
    ViewOutput& operator=(const ViewOutput&) = delete;

    /// "-" is standard output, "" nowhere. False, with errno set, when the file cannot be created.
    bool open(const std::string& name);
    bool isStandardOutput() const;
    /// Writes all of it at once, so that what has been played can be followed in the file. An end by signal
    /// also ends a wait for a slow reader: `failed` with EINTR. Otherwise errno says why.
    Result write(std::string_view data);

private:
    int m_file = -1;
};
