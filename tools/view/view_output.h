// Where a viewer puts the pictures, the list of them or its report: a file, standard output, or nowhere. What
// cannot be done is thrown as a Failure that names the file.
#pragma once

#include <string>
#include <string_view>

class ViewOutput {
public:
    ViewOutput() = default;
    ~ViewOutput(); ///< removes a file that `open` has made and nothing was begun in
    ViewOutput(const ViewOutput&) = delete;
    ViewOutput& operator=(const ViewOutput&) = delete;

    /// "-" is standard output, "" nowhere. What a file holds stays until `begin`.
    void open(const std::string& name);
    /// Empties the file, once there is something to put into it.
    void begin();
    bool isStandardOutput() const;
    /// It goes to a pipe or a terminal that nobody reads any more; never so of a file.
    bool readerGone() const;
    /// Writes all of it at once, so that what has been played can be followed in the file. False when nobody
    /// takes it any more: the reader has gone, or a signal ended the wait for a slow one.
    bool write(std::string_view data);

private:
    std::string m_name;
    int m_file = -1;
    bool m_made = false; ///< new, and not begun
};
