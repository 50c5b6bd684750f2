#pragma once

#include "overlay/ArtworkPlacement.h"

#include <QImage>
#include <QSize>
#include <QString>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>

// A step's background, with its release badge, at one screen's size: the
// artwork scaled by one factor and centred, the margins filled with its
// outermost rows or columns stretched outward. Never changed once made.
struct ScaledBackground
{
    // The screen's size, premultiplied ARGB (what text is drawn on), with the
    // placement's dots per metre.
    QImage image;
    ArtworkPlacement placement;
    // Every pixel is opaque: the rows can go to a 32-bit server as they are.
    bool opaque = false;
};

// The scaled backgrounds, shared by all station threads: one per file,
// badge, file versions and screen size, made once by the first station that
// needs it while the others of that size wait for it, and kept while some
// station holds it. A file that cannot be read is never shared: each station
// that needs it looks again and logs its own line.
//
// One instance (shared()) for the process; obtain() is called on any station
// thread, the map under one mutex, the loading outside it. The library holds
// only weak references: the stations' shared pointers own the pictures, which
// are read-only and so read from several threads at once.
class BackgroundLibrary
{
public:
    static BackgroundLibrary& shared();

    // `fileName` with `badgeFile` (none when empty) stretched over it, at
    // `screen`'s size; null, logged, when the background cannot be read.
    std::shared_ptr<const ScaledBackground> obtain(const QString& fileName,
                                                   const QString& badgeFile, QSize screen);
    // The backgrounds held by some station now.
    int countInUse();

private:
    // Which version of a picture file is meant: a file replaced on disk is read anew.
    struct FileStamp
    {
        qint64 modified = 0;
        qint64 size = -1;

        explicit FileStamp(const QString& fileName);
        bool exists() const { return size >= 0; }
    };

    struct Key
    {
        QString fileName;
        FileStamp fileStamp;
        QString badgeFile;
        FileStamp badgeStamp;
        int width;
        int height;

        auto tied() const
        {
            return std::tie(fileName, badgeFile, width, height, fileStamp.modified, fileStamp.size,
                            badgeStamp.modified, badgeStamp.size);
        }
        bool operator<(const Key& other) const { return tied() < other.tied(); }
    };

    struct Entry
    {
        std::weak_ptr<const ScaledBackground> background;
        bool loading = false;
    };

    // Reads and scales the files; `complete` is false when the badge is missing.
    static std::shared_ptr<const ScaledBackground> load(const Key& key, bool& complete);
    // Forgets the entries that no station holds and none is making.
    void sweep();

    std::mutex mutex;
    std::condition_variable loaded;
    std::map<Key, Entry> entries;
};
