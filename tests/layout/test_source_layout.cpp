#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QtTest>

#include <vector>

namespace {

// Longer files are split into classes with one job each.
constexpr int maxLines = 500;

// One project header named by an #include line.
struct Include
{
    QString file; // the including file, relative to src/
    int line;
    QString text;   // what the line names, e.g. "daemon/Selvane.h"
    QString folder; // the folder of src/ the header belongs to
};

// The files of src/ and the project headers they include.
class SourceTree
{
public:
    explicit SourceTree(const QString& sourceDir) : root(sourceDir)
    {
        for (const QFileInfo& entry : root.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            folders.insert(entry.fileName());
        }
        QDirIterator it(root.path(), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            files.append(root.relativeFilePath(it.next()));
        }
        files.sort();
    }

    QStringList getFiles() const { return files; }
    QSet<QString> getFolders() const { return folders; }

    // The folder of src/ a file lies in; empty for files of src/ itself.
    static QString folderOf(const QString& file)
    {
        const int slash = file.indexOf('/');
        return slash < 0 ? QString() : file.left(slash);
    }

    QStringList readLines(const QString& file) const
    {
        QFile source(root.filePath(file));
        if (!source.open(QIODevice::ReadOnly)) {
            return {};
        }
        QStringList lines = QString::fromUtf8(source.readAll()).split('\n');
        if (!lines.isEmpty() && lines.last().isEmpty()) {
            lines.removeLast();
        }
        return lines;
    }

    // The project headers a file includes. "folder/File.h" belongs to that folder; a name
    // without a folder to the including file's own folder when it is there, else to the
    // folder that holds its template ("Paths.h" is generated from common/Paths.h.in).
    std::vector<Include> includesOf(const QString& file) const
    {
        static const QRegularExpression includeLine(
            QStringLiteral("^\\s*#\\s*include\\s*[<\"]([^>\"]+)[>\"]"));
        std::vector<Include> includes;
        const QStringList lines = readLines(file);
        for (int i = 0; i < lines.size(); ++i) {
            const QRegularExpressionMatch match = includeLine.match(lines.at(i));
            if (!match.hasMatch()) {
                continue;
            }
            const QString name = match.captured(1);
            const QString folder = folderOfHeader(file, name);
            if (!folder.isNull()) {
                includes.push_back({file, i + 1, name, folder});
            }
        }
        return includes;
    }

    // Null when the header is none of the project's.
    QString folderOfHeader(const QString& includingFile, const QString& name) const
    {
        if (name.contains('/')) {
            const QString folder = folderOf(name);
            return folders.contains(folder) && root.exists(name) ? folder : QString();
        }
        const QString own = folderOf(includingFile);
        if (root.exists(own + "/" + name)) {
            return own;
        }
        for (const QString& folder : folders) {
            if (root.exists(folder + "/" + name + ".in")) {
                return folder;
            }
        }
        return QString();
    }

private:
    QDir root;
    QStringList files;
    QSet<QString> folders;
};

} // namespace

class SourceLayoutTest : public QObject
{
    Q_OBJECT

public:
    SourceLayoutTest() : tree(QStringLiteral(SELVANE_SOURCE_DIR)) {}

private Q_SLOTS:
    void theTreeIsRead()
    {
        const QSet<QString> expected{"assignment", "common",  "daemon",    "input",
                                     "keys",       "overlay", "sequences", "translation"};
        QVERIFY2(tree.getFolders().contains(expected), qPrintable(SELVANE_SOURCE_DIR));
        QVERIFY(tree.getFiles().contains("daemon/Selvane.cpp"));
        // A folder-less name is found beside the includer, or by its template.
        QCOMPARE(tree.folderOfHeader("overlay/OverlayComposer.cpp", "Paths.h"), QString("common"));
        QCOMPARE(tree.folderOfHeader("input/InputReader.cpp", "InputReader.h"), QString("input"));
        QVERIFY(tree.folderOfHeader("input/InputReader.cpp", "linux/input.h").isNull());
        QVERIFY(tree.folderOfHeader("common/Logger.cpp", "QString").isNull());
        bool foundDaemonInclude = false;
        for (const Include& include : tree.includesOf("daemon/Selvane.cpp")) {
            foundDaemonInclude = foundDaemonInclude || include.folder == "assignment";
        }
        QVERIFY(foundDaemonInclude);
    }

    void noFileIsLongerThanTheLimit()
    {
        QStringList tooLong;
        for (const QString& file : tree.getFiles()) {
            const int lines = tree.readLines(file).size();
            if (lines > maxLines) {
                tooLong << QStringLiteral("src/%1: %2 lines").arg(file).arg(lines);
            }
        }
        QVERIFY2(
            tooLong.isEmpty(),
            qPrintable(QStringLiteral("more than %1 lines:\n").arg(maxLines) + tooLong.join('\n')));
    }

    // Each row: the folders whose files are checked, and either the only folders they may
    // include (besides their own) or the folders they must not include.
    void includes_data()
    {
        QTest::addColumn<QStringList>("checked");
        QTest::addColumn<bool>("onlyListed");
        QTest::addColumn<QStringList>("listed");

        QStringList allButDaemon = tree.getFolders().values();
        allButDaemon.removeAll("daemon");
        allButDaemon.sort();
        QTest::newRow("nothing outside the daemon includes the daemon")
            << allButDaemon << false << QStringList{"daemon"};
        QTest::newRow("common includes nothing of the other folders")
            << QStringList{"common"} << true << QStringList{};
        QTest::newRow("the key engine includes nothing of the other folders")
            << QStringList{"keys"} << true << QStringList{};
        QTest::newRow("input includes only the key engine and common")
            << QStringList{"input"} << true << QStringList{"keys", "common"};
        QTest::newRow("the overlay knows nothing of assignment, daemon, sequences, input")
            << QStringList{"overlay"} << false
            << QStringList{"assignment", "daemon", "sequences", "input"};
        QTest::newRow("assignment includes nothing of the daemon")
            << QStringList{"assignment"} << false << QStringList{"daemon"};
        QTest::newRow("the seats bridge includes only common")
            << QStringList{"seats"} << true << QStringList{"common"};
    }
    void includes()
    {
        QFETCH(QStringList, checked);
        QFETCH(bool, onlyListed);
        QFETCH(QStringList, listed);
        QStringList offending;
        int filesChecked = 0;
        for (const QString& file : tree.getFiles()) {
            const QString folder = SourceTree::folderOf(file);
            if (!checked.contains(folder)) {
                continue;
            }
            ++filesChecked;
            for (const Include& include : tree.includesOf(file)) {
                if (include.folder == folder) {
                    continue;
                }
                if (listed.contains(include.folder) != onlyListed) {
                    offending << QStringLiteral("src/%1:%2: #include \"%3\"")
                                     .arg(include.file)
                                     .arg(include.line)
                                     .arg(include.text);
                }
            }
        }
        QVERIFY2(filesChecked > 0, "no file of the checked folders was found");
        QVERIFY2(offending.isEmpty(), qPrintable(offending.join('\n')));
    }

private:
    SourceTree tree;
};

QTEST_GUILESS_MAIN(SourceLayoutTest)
#include "test_source_layout.moc"
