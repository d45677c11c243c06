// A world in a line: one temporary directory with everything the daemon expects below it.
#pragma once

#include <cstddef>
#include <ios>
#include <string>
#include <sys/types.h>
#include <type_traits>

namespace test {

/// Makes the directory, the key file (whose IPC keys nobody uses), the card directory and a usable card
/// state, and moves paths() below it. The destructor removes the directory and any IPC object left on its
/// keys. No index yet: Card makes one.
class World {
public:
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const std::string& root() const { return m_root; }
    key_t statusKey() const;
    key_t outputKey() const;

    /// First bytes of the two card-state files; '\0' leaves the file empty.
    void setCardState(char cardDetect, char readOnly);

private:
    std::string m_root;
    int m_claim = -1; ///< holds the keys against other worlds
};

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
/// Overwrites bytes of a file in place.
void patchFile(const std::string& path, std::streamoff position, const std::string& bytes);
/// A record's bytes as a text that a failed comparison shows legibly.
template <class Record> std::string bytesOf(const Record& record) {
    static_assert(std::has_unique_object_representations_v<Record>);
    return {reinterpret_cast<const char*>(&record), sizeof record};
}
/// Descriptors of this process.
std::ptrdiff_t openFiles();

} // namespace test
