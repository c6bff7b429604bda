#include "UnpackCheck_p.h"

#include "Directory_p.h"

#include <QList>

#include <deque>
#include <map>

#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The most links one path may pass through, as the kernel allows.
constexpr int MaxLinkHops = 40;

struct Member
{
    char type = 0; // the first letter of the listed mode: '-', 'd', 'l', 'h', ...
    QByteArray name;
    QByteArray target; // of a symbolic or hard link
};

// Reads a string in C quotes from text at position at, which it moves past
// the closing quote. False when there is none.
bool readQuoted(const QByteArray &text, int &at, QByteArray &out)
{
    if (at >= text.size() || text.at(at) != '"')
        return false;
    out.clear();
    for (++at; at < text.size(); ++at) {
        char c = text.at(at);
        if (c == '"') {
            ++at;
            return true;
        }
        if (c == '\\' && ++at < text.size()) {
            c = text.at(at);
            if (c >= '0' && c <= '7') {
                int value = 0;
                for (int digits = 0;
                     digits < 3 && at < text.size() && text.at(at) >= '0' && text.at(at) <= '7';
                     ++digits, ++at)
                    value = value * 8 + (text.at(at) - '0');
                --at;
                c = char(value);
            } else {
                switch (c) {
                case 'a':
                    c = '\a';
                    break;
                case 'b':
                    c = '\b';
                    break;
                case 'f':
                    c = '\f';
                    break;
                case 'n':
                    c = '\n';
                    break;
                case 'r':
                    c = '\r';
                    break;
                case 't':
                    c = '\t';
                    break;
                case 'v':
                    c = '\v';
                    break;
                default:
                    break; // '"', '\\' and '?' stand for themselves
                }
            }
        }
        out.append(c);
    }
    return false;
}

// One line of the verbose listing: mode, owner, size, date, time, then the
// quoted name and, for a link, " -> " or " link to " and the quoted target.
bool parse(const QByteArray &line, Member &member)
{
    int at = line.indexOf('"');
    if (line.isEmpty() || at < 0 || !readQuoted(line, at, member.name))
        return false;
    member.type = line.at(0);
    member.target.clear();
    for (const QByteArray &link : { QByteArray(" -> "), QByteArray(" link to ") }) {
        if (line.mid(at, link.size()) == link) {
            at += link.size();
            return readQuoted(line, at, member.target);
        }
    }
    return true;
}

bool isPlainRelative(const QByteArray &name)
{
    if (name.startsWith('/'))
        return false;
    for (const QByteArray &part : name.split('/')) {
        if (part == "..")
            return false;
    }
    return true;
}

QByteArray normalised(const QList<QByteArray> &parts)
{
    QByteArray path;
    for (const QByteArray &part : parts)
        path += (path.isEmpty() ? "" : "/") + part;
    return path;
}

class Checker
{
public:
    explicit Checker(const Directory &destination) : m_destination(destination) { }

    bool admit(const Member &member)
    {
        if (!isPlainRelative(member.name) || !directoriesStayInside(member.name))
            return false;
        if (member.type == 'h'
            && (!isPlainRelative(member.target) || !directoriesStayInside(member.target)))
            return false;
        if (member.type == 'l')
            m_links[normalised(parts(member.name))] = member.target;
        return true;
    }

private:
    static QList<QByteArray> parts(const QByteArray &name)
    {
        QList<QByteArray> result;
        for (const QByteArray &part : name.split('/')) {
            if (!part.isEmpty() && part != ".")
                result.append(part);
        }
        return result;
    }

    // The target of the link at path below the destination, made by the
    // archive or already there; null when path is no link.
    QByteArray linkAt(const QByteArray &path) const
    {
        const auto made = m_links.find(path);
        if (made != m_links.end())
            return made->second;
        struct stat status;
        if (::fstatat(m_destination.fd(), path.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0
            || !S_ISLNK(status.st_mode))
            return QByteArray();
        QByteArray target(PATH_MAX, '\0');
        const ssize_t size = ::readlinkat(m_destination.fd(), path.constData(), target.data(),
                                          std::size_t(target.size()));
        return size > 0 ? target.left(int(size)) : QByteArray("/"); // unreadable: leaves
    }

    // Walks the directories above name's last part as the kernel will
    // when tar writes it, links expanded in place.
    bool directoriesStayInside(const QByteArray &name) const
    {
        QList<QByteArray> todo = parts(name);
        if (todo.isEmpty())
            return true;
        todo.removeLast();
        std::deque<QByteArray> pending(todo.begin(), todo.end());
        QList<QByteArray> reached;
        int hops = 0;
        while (!pending.empty()) {
            const QByteArray part = pending.front();
            pending.pop_front();
            if (part.isEmpty() || part == ".")
                continue;
            if (part == "..") {
                if (reached.isEmpty())
                    return false;
                reached.removeLast();
                continue;
            }
            reached.append(part);
            const QByteArray target = linkAt(normalised(reached));
            if (target.isNull())
                continue;
            reached.removeLast();
            if (target.startsWith('/') || ++hops > MaxLinkHops)
                return false;
            const QList<QByteArray> through = target.split('/');
            pending.insert(pending.begin(), through.begin(), through.end());
        }
        return true;
    }

    const Directory &m_destination;
    std::map<QByteArray, QByteArray> m_links;
};

} // namespace

bool UnpackCheck::staysInside(const QByteArray &listing, const Directory &destination)
{
    Checker checker(destination);
    Member member;
    for (const QByteArray &line : listing.split('\n')) {
        if (line.isEmpty())
            continue;
        if (!parse(line, member) || !checker.admit(member))
            return false;
    }
    return true;
}
