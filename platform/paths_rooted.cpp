#include "platform/paths_rooted.h"

#include <cstdlib>
#include <string>

#include "platform/paths.h"

namespace {

class RootedPaths {
public:
    explicit RootedPaths(const std::string& root) { moveTo(root); }
    RootedPaths(const RootedPaths&) = delete;
    RootedPaths& operator=(const RootedPaths&) = delete;

    void moveTo(const std::string& root) {
        const std::string base = root.substr(0, root.find_last_not_of('/') + 1); // "/" moves nothing
        std::string* text = m_text;
        for (auto member : kMembers) {
            *text = base + kFixedPaths.*member;
            m_paths.*member = text->c_str();
            ++text;
        }
    }
    const FixedPaths& get() const { return m_paths; }

private:
    static constexpr const char* FixedPaths::*kMembers[] = {
        &FixedPaths::controlSocket, &FixedPaths::pidFile,      &FixedPaths::ipcKey, &FixedPaths::index,
        &FixedPaths::cardDetect,    &FixedPaths::cardReadOnly, &FixedPaths::card,
    };
    static_assert(sizeof kMembers == sizeof(FixedPaths), "every path is moved below the root");

    std::string m_text[sizeof kMembers / sizeof kMembers[0]];
    FixedPaths m_paths{};
};
static_assert(sizeof(const char* FixedPaths::*) == sizeof(const char*));

RootedPaths& rooted() {
    static RootedPaths paths([] {
        const char* root = std::getenv("TAVIRN_ROOT");
        return std::string(root ? root : "");
    }());
    return paths;
}

} // namespace

const FixedPaths& paths() {
    return rooted().get();
}

void setPathsRoot(const char* root) {
    rooted().moveTo(root);
}
