#include "DirectoryPath_p.h"

#include <cerrno>
#include <utility>

namespace {
// Descriptors a descent keeps open besides its root. A walk that comes back
// up past them reopens this many levels at a time, so the cost stays small
// at any depth, and a tree copy with its two descents stays far below the
// usual limit of 1024 descriptors a process.
constexpr std::size_t MaxOpenLevels = 32;
} // namespace

DirectoryPath::DirectoryPath(Directory root)
{
    const struct stat status = root.status();
    m_levels.push_back({ std::move(root), QByteArray(), Directory::Links::Follow, status.st_dev,
                         status.st_ino });
}

bool DirectoryPath::push(const QByteArray &name, Directory::Links links)
{
    const Directory *parent = innermost();
    if (!parent)
        return false;
    Directory child = parent->openChild(name, links);
    if (!child.isOpen())
        return false;
    const struct stat status = child.status();
    m_levels.push_back({ std::move(child), name, links, status.st_dev, status.st_ino });
    ++m_open;
    closeOutermost();
    return true;
}

void DirectoryPath::pop()
{
    if (m_levels.size() <= 1)
        return;
    if (m_levels.back().directory.isOpen())
        --m_open;
    m_levels.pop_back();
}

const Directory *DirectoryPath::innermost()
{
    const std::size_t index = m_levels.size() - 1;
    if (!m_levels[index].directory.isOpen() && !reopen(index))
        return nullptr;
    return &m_levels[index].directory;
}

bool DirectoryPath::contains(const struct stat &status) const
{
    return indexOf(status.st_dev, status.st_ino) < m_levels.size();
}

bool DirectoryPath::innermostRepeats() const
{
    const Level &innermost = m_levels.back();
    return indexOf(innermost.device, innermost.inode) + 1 < m_levels.size();
}

// The outermost level that is the directory device and inode name, or the
// depth plus one when there is none.
std::size_t DirectoryPath::indexOf(dev_t device, ino_t inode) const
{
    std::size_t i = 0;
    while (i < m_levels.size() && !(m_levels[i].device == device && m_levels[i].inode == inode))
        ++i;
    return i;
}

bool DirectoryPath::reopen(std::size_t index)
{
    std::size_t open = index;
    while (!m_levels[open].directory.isOpen())
        --open; // the root is always open
    for (std::size_t i = open + 1; i <= index; ++i) {
        Level &level = m_levels[i];
        Directory directory = m_levels[i - 1].directory.openChild(level.name, level.links);
        if (!directory.isOpen())
            return false;
        if (directory.status().st_dev != level.device || directory.status().st_ino != level.inode) {
            errno = ESTALE;
            return false;
        }
        level.directory = std::move(directory);
        ++m_open;
    }
    closeOutermost();
    return true;
}

// Closes the outermost open levels below the root until at most
// MaxOpenLevels besides it are open; the innermost stay open.
void DirectoryPath::closeOutermost()
{
    for (std::size_t i = 1; m_open > MaxOpenLevels + 1 && i < m_levels.size(); ++i) {
        if (m_levels[i].directory.isOpen()) {
            m_levels[i].directory.close();
            --m_open;
        }
    }
}
