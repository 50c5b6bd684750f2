#include "input/InputKeyCode.h"
#include "keys/KeyEngine.h"
#include "keys/KeyRecord.h"
#include "keys/KeyState.h"

#include <QtTest>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>
#include <vector>

// Runs the key engine's cases: one plain-text file per case in cases/, whose format
// cases/README.md describes. Each file is fed line by line to a fresh KeyEngine; the
// decisions that come back are compared with the file's `expect` lines.

namespace {

struct Line
{
    int number = 0;
    QString text;

    QString describe() const
    {
        return QStringLiteral("line %1 \"%2\"").arg(QString::number(number), text);
    }
};

// A decision with the event line whose records produced it.
struct SeenDecision
{
    KeyEngine::Decision decision;
    Line from;
};

// The words that start a line which is not an event of a device.
const QStringList directives = {"command", "reload", "claimkey", "arm",     "disarm", "refuse",
                                "device",  "remove", "expect",   "waiting", "held"};

// The records of a device line that name a key.
const QStringList keyRecordKinds = {"press", "release", "repeat", "down", "up"};

// One case, run from its text. run() answers an empty text when the case holds, otherwise
// what went wrong and where.
class KeyCase
{
public:
    explicit KeyCase(QString name) : caseName(std::move(name)) {}

    QString run(const QString& text)
    {
        const QStringList lines = text.split(QLatin1Char('\n'));
        for (int index = 0; index < lines.size() && failure.isEmpty(); ++index) {
            const Line line{index + 1, lines[index].trimmed()};
            if (line.text.isEmpty() || line.text.startsWith(QLatin1Char('#'))) {
                continue;
            }
            step(line);
        }
        if (failure.isEmpty()) {
            finishLists(QString());
            compareExpectations();
        }
        if (failure.isEmpty() && !seen.isEmpty()) {
            fail(Line{int(lines.size()), QStringLiteral("(end of the case)")},
                 QStringLiteral("decisions nobody expected: %1\n  first from %2")
                     .arg(describeSeen())
                     .arg(seen.first().from.describe()));
        }
        return failure;
    }

private:
    void step(const Line& line)
    {
        const QString text = line.text.simplified();
        const QString word = text.section(QLatin1Char(' '), 0, 0);
        const QString rest = text.section(QLatin1Char(' '), 1);
        finishLists(word);
        if (word != QLatin1String("expect")) {
            compareExpectations();
        }
        if (!failure.isEmpty()) {
            return;
        }
        if (word == QLatin1String("command")) {
            addCommand(line, rest);
        } else if (word == QLatin1String("reload")) {
            startReload(line, rest);
        } else if (word == QLatin1String("claimkey")) {
            addClaimKey(line, rest);
        } else if (word == QLatin1String("arm") || word == QLatin1String("disarm")) {
            arm(line, rest, word == QLatin1String("arm"));
        } else if (word == QLatin1String("refuse")) {
            refuse(line, rest);
        } else if (word == QLatin1String("device")) {
            addDevice(line, rest);
        } else if (word == QLatin1String("remove")) {
            removeDevice(line, rest);
        } else if (word == QLatin1String("expect")) {
            expect(line, rest);
        } else if (word == QLatin1String("waiting")) {
            checkWaiting(line, rest);
        } else if (word == QLatin1String("held")) {
            checkHeld(line, rest);
        } else if (deviceIds.contains(word)) {
            feed(line, word, rest);
        } else {
            fail(line, QStringLiteral("unknown directive or device \"%1\"").arg(word));
        }
    }

    // Command and claim key lines in a row form one list, handed to the engine when a line of
    // another kind comes.
    void finishLists(const QString& nextWord)
    {
        if (pendingCommands && nextWord != QLatin1String("command")) {
            engine.setCommandCombinations(std::move(*pendingCommands), kept);
            pendingCommands.reset();
            kept.clear();
        }
        if (collectingClaimKeys && nextWord != QLatin1String("claimkey")) {
            engine.setClaimKeys(claimKeys);
            collectingClaimKeys = false;
        }
    }

    void addCommand(const Line& line, const QString& rest)
    {
        if (!pendingCommands) {
            if (commandsGiven) {
                fail(line, QStringLiteral("a later list of commands starts with \"reload\""));
                return;
            }
            pendingCommands.emplace();
        }
        commandsGiven = true;
        const QString combinationText = rest.section(QStringLiteral(" keeps "), 0, 0);
        const auto combination = parseCombination(line, combinationText);
        if (!combination) {
            return;
        }
        const std::size_t index = pendingCommands->size();
        if (rest.contains(QStringLiteral(" keeps "))) {
            const QString oldIndexes = rest.section(QStringLiteral(" keeps "), 1);
            for (const QString& oldIndex : oldIndexes.split(QLatin1Char(','))) {
                bool ok = false;
                const uint old = oldIndex.trimmed().toUInt(&ok);
                if (!ok) {
                    fail(line, QStringLiteral("\"%1\" is not a command index").arg(oldIndex));
                    return;
                }
                kept[old] = index;
            }
        }
        pendingCommands->push_back(*combination);
    }

    void startReload(const Line& line, const QString& rest)
    {
        if (!rest.isEmpty()) {
            fail(line, QStringLiteral("\"reload\" stands alone; its commands follow"));
            return;
        }
        pendingCommands.emplace();
        commandsGiven = true;
    }

    void addClaimKey(const Line& line, const QString& rest)
    {
        if (claimKeysGiven && !collectingClaimKeys) {
            fail(line, QStringLiteral("the claim keys are given in one list"));
            return;
        }
        claimKeysGiven = true;
        collectingClaimKeys = true;
        const auto combination = parseCombination(line, rest);
        if (!combination) {
            return;
        }
        if (findClaimKey(*combination)) {
            fail(line, QStringLiteral("the claim key is given twice"));
            return;
        }
        claimKeys.push_back(*combination);
    }

    void arm(const Line& line, const QString& rest, bool on)
    {
        if (const auto index = claimKeyIndex(line, rest)) {
            engine.setClaimKeyArmed(*index, on);
        }
    }

    // `refuse KEY NAME`: the station did not take the device that claimed KEY.
    void refuse(const Line& line, const QString& rest)
    {
        const auto index = claimKeyIndex(line, rest.section(QLatin1Char(' '), 0, 0));
        const auto id =
            index ? deviceId(line, rest.section(QLatin1Char(' '), 1).trimmed()) : std::nullopt;
        if (index && id) {
            engine.withdrawClaim(*id, *index);
        }
    }

    void addDevice(const Line& line, const QString& rest)
    {
        const QString name = rest.section(QLatin1Char(' '), 0, 0);
        const QString holding = rest.section(QLatin1Char(' '), 1).trimmed();
        if (name.isEmpty() || directives.contains(name)) {
            fail(line, QStringLiteral("a device needs a name that is not a directive"));
            return;
        }
        // A device removed and given again is the same number, as a new device.
        const KeyEngine::DeviceId id =
            deviceIds.value(name, KeyEngine::DeviceId(deviceIds.size() + 1));
        if (engine.hasDevice(id)) {
            fail(line, QStringLiteral("the device \"%1\" is present already").arg(name));
            return;
        }
        // The held keys as the kernel reports them when the device is opened.
        unsigned char bits[(KeyState::lastKeyCode + 1) / 8] = {};
        if (!holding.isEmpty()) {
            if (!holding.startsWith(QLatin1String("holding "))) {
                fail(line, QStringLiteral("after the name comes \"holding\" and the keys"));
                return;
            }
            const auto keys = parseKeys(line, holding.mid(8));
            if (!keys) {
                return;
            }
            for (const int key : *keys) {
                if (key > KeyState::lastKeyCode) {
                    fail(line, QStringLiteral("a device cannot hold code %1").arg(key));
                    return;
                }
                bits[key / 8] |= static_cast<unsigned char>(1 << (key % 8));
            }
        }
        deviceIds.insert(name, id);
        deviceNames.insert(id, name);
        engine.addDevice(id, KeyState::fromKernelBits(bits, sizeof bits));
    }

    void removeDevice(const Line& line, const QString& name)
    {
        if (const auto id = deviceId(line, name)) {
            engine.removeDevice(*id);
        }
    }

    // `NAME record, record ...`: one call of feed() with every record of the line.
    void feed(const Line& line, const QString& name, const QString& rest)
    {
        std::vector<KeyRecord> records;
        for (const QString& item : rest.split(QLatin1Char(','))) {
            const QString kind = item.trimmed().section(QLatin1Char(' '), 0, 0);
            const QString keyName = item.trimmed().section(QLatin1Char(' '), 1).trimmed();
            if (kind == QLatin1String("frame") || kind == QLatin1String("kernelframe")) {
                if (!keyName.isEmpty()) {
                    fail(line, QStringLiteral("\"%1\" takes no key").arg(kind));
                    return;
                }
                records.push_back(KeyRecord::frameEnd(kind == QLatin1String("frame") ? 0 : 1));
                continue;
            }
            if (!keyRecordKinds.contains(kind)) {
                fail(line, QStringLiteral("unknown record \"%1\"").arg(item.trimmed()));
                return;
            }
            const auto key = parseKey(line, keyName);
            if (!key) {
                return;
            }
            const auto code = static_cast<std::uint16_t>(*key);
            // The device reader passes no auto-repeat record on to the engine.
            if (kind == QLatin1String("press") || kind == QLatin1String("down")) {
                records.push_back(KeyRecord::press(code));
            } else if (kind == QLatin1String("release") || kind == QLatin1String("up")) {
                records.push_back(KeyRecord::release(code));
            }
            // A key typed alone: its own frame.
            if (kind == QLatin1String("down") || kind == QLatin1String("up")) {
                records.push_back(KeyRecord::frameEnd());
            }
        }
        lastEvent = line;
        for (const KeyEngine::Decision& decision : engine.feed(deviceIds.value(name), records)) {
            seen.append({decision, line});
        }
    }

    // `expect` lines in a row name the decisions since the previous row, in order.
    void expect(const Line& line, const QString& rest)
    {
        if (expectationStart.number == 0) {
            expectationStart = line;
        }
        if (rest == QLatin1String("nothing")) {
            expectsNothing = true;
            return;
        }
        const QString kind = rest.section(QLatin1Char(' '), 0, 0);
        const QString name = rest.section(QLatin1Char(' '), -1);
        const QString middle = rest.section(QLatin1Char(' '), 1, -2).trimmed();
        const auto id = deviceId(line, name);
        if (!id) {
            return;
        }
        using Kind = KeyEngine::Decision::Kind;
        if (kind == QLatin1String("drop") && middle.isEmpty()) {
            expected.append({Kind::DROP_TRIGGERS, *id, 0});
        } else if (kind == QLatin1String("run")) {
            bool ok = false;
            const uint index = middle.toUInt(&ok);
            if (!ok) {
                fail(line, QStringLiteral("\"%1\" is not a command index").arg(middle));
                return;
            }
            expected.append({Kind::RUN_COMMAND, *id, index});
        } else if (kind == QLatin1String("claim")) {
            if (const auto index = claimKeyIndex(line, middle)) {
                expected.append({Kind::CLAIM, *id, *index});
            }
        } else {
            fail(line, QStringLiteral("expect nothing, run N DEVICE, claim KEYS DEVICE or "
                                      "drop DEVICE"));
        }
    }

    void compareExpectations()
    {
        if (expectationStart.number == 0) {
            return;
        }
        const Line at = std::exchange(expectationStart, Line{});
        if (expectsNothing && !expected.isEmpty()) {
            fail(at, QStringLiteral("\"expect nothing\" stands alone"));
            return;
        }
        const bool same =
            std::equal(expected.begin(), expected.end(), seen.begin(), seen.end(),
                       [](const KeyEngine::Decision& wanted, const SeenDecision& got) {
                           return wanted == got.decision;
                       });
        if (!same) {
            int first = 0;
            while (first < expected.size() && first < seen.size() &&
                   expected[first] == seen[first].decision) {
                ++first;
            }
            const Line& wrong = first < seen.size() ? seen[first].from : lastEvent;
            QStringList wanted;
            for (const KeyEngine::Decision& decision : expected) {
                wanted.append(describe(decision));
            }
            fail(at, QStringLiteral("the decisions differ\n  expected: %1\n  actual:   %2\n"
                                    "  went wrong at %3")
                         .arg(wanted.isEmpty() ? QStringLiteral("nothing") : wanted.join(", "))
                         .arg(describeSeen())
                         .arg(wrong.number ? wrong.describe() : QStringLiteral("the start")));
            return;
        }
        expected.clear();
        expectsNothing = false;
        seen.clear();
    }

    // `waiting NAME 0, 2` or `waiting NAME none`: the device's waiting commands, in order.
    void checkWaiting(const Line& line, const QString& rest)
    {
        const auto id = deviceId(line, rest.section(QLatin1Char(' '), 0, 0));
        if (!id) {
            return;
        }
        const QString list = rest.section(QLatin1Char(' '), 1).trimmed();
        std::vector<std::size_t> wanted;
        if (list != QLatin1String("none")) {
            for (const QString& item : list.split(QLatin1Char(','))) {
                bool ok = false;
                wanted.push_back(item.trimmed().toUInt(&ok));
                if (!ok) {
                    fail(line, QStringLiteral("\"%1\" is not a command index").arg(item));
                    return;
                }
            }
        }
        const std::vector<std::size_t> actual = engine.waitingCommands(*id);
        if (actual != wanted) {
            QStringList indexes;
            for (const std::size_t index : actual) {
                indexes.append(QString::number(index));
            }
            fail(line, QStringLiteral("actually waiting: %1")
                           .arg(indexes.isEmpty() ? "none" : indexes.join(", ")));
        }
    }

    // `held NAME KEY, KEY` or `held NAME none`: exactly these keys are down.
    void checkHeld(const Line& line, const QString& rest)
    {
        const auto id = deviceId(line, rest.section(QLatin1Char(' '), 0, 0));
        if (!id) {
            return;
        }
        const QString list = rest.section(QLatin1Char(' '), 1).trimmed();
        std::vector<int> wanted;
        if (list != QLatin1String("none")) {
            const auto keys = parseKeys(line, list);
            if (!keys) {
                return;
            }
            wanted = *keys;
            std::sort(wanted.begin(), wanted.end());
        }
        const KeyState* state = engine.keyState(*id);
        std::vector<int> actual;
        for (int key = 0; state && key <= KeyState::lastKeyCode; ++key) {
            if (state->isPressed(key)) {
                actual.push_back(key);
            }
        }
        if (actual != wanted) {
            QStringList names;
            for (const int key : actual) {
                names.append(keyName(key));
            }
            fail(line, QStringLiteral("actually held: %1")
                           .arg(names.isEmpty() ? "none" : names.join(", ")));
        }
    }

    // `KEY, KEY : KEY`: hold keys, a colon, press keys; without a colon, press keys only.
    std::optional<KeyEngine::Combination> parseCombination(const Line& line, const QString& text)
    {
        if (text.count(QLatin1Char(':')) > 1) {
            fail(line, QStringLiteral("a combination has one colon at most"));
            return std::nullopt;
        }
        const bool hasHoldKeys = text.contains(QLatin1Char(':'));
        const auto holdKeys = parseKeys(line, hasHoldKeys ? text.section(':', 0, 0) : QString());
        const auto pressKeys = parseKeys(line, text.section(':', hasHoldKeys ? 1 : 0));
        if (!holdKeys || !pressKeys) {
            return std::nullopt;
        }
        if (pressKeys->empty()) {
            fail(line, QStringLiteral("a combination needs a press key"));
            return std::nullopt;
        }
        return KeyEngine::Combination{*holdKeys, *pressKeys};
    }

    // Key names separated by commas; duplicates stay, as a configuration line keeps them.
    std::optional<std::vector<int>> parseKeys(const Line& line, const QString& text)
    {
        std::vector<int> keys;
        for (const QString& name : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            if (name.trimmed().isEmpty()) {
                continue;
            }
            const auto key = parseKey(line, name.trimmed());
            if (!key) {
                return std::nullopt;
            }
            keys.push_back(*key);
        }
        return keys;
    }

    // A name of the key code table, or a code in decimal for codes the table has no name for.
    std::optional<int> parseKey(const Line& line, const QString& name)
    {
        if (const InputKeyCode* key = InputKeyCode::keyCodeFindByName(name)) {
            return key->getCode();
        }
        bool isNumber = false;
        const uint code = name.toUInt(&isNumber);
        if (isNumber && code <= 0xffff) {
            return int(code);
        }
        fail(line, QStringLiteral("unknown key name \"%1\"").arg(name));
        return std::nullopt;
    }

    std::optional<KeyEngine::DeviceId> deviceId(const Line& line, const QString& name)
    {
        if (!deviceIds.contains(name)) {
            fail(line, QStringLiteral("unknown device \"%1\"").arg(name));
            return std::nullopt;
        }
        return deviceIds.value(name);
    }

    std::optional<std::size_t> findClaimKey(const KeyEngine::Combination& combination) const
    {
        for (std::size_t index = 0; index < claimKeys.size(); ++index) {
            if (claimKeys[index].holdKeys == combination.holdKeys &&
                claimKeys[index].pressKeys == combination.pressKeys) {
                return index;
            }
        }
        return std::nullopt;
    }

    std::optional<std::size_t> claimKeyIndex(const Line& line, const QString& text)
    {
        const auto combination = parseCombination(line, text);
        if (!combination) {
            return std::nullopt;
        }
        const auto index = findClaimKey(*combination);
        if (!index) {
            fail(line, QStringLiteral("\"%1\" is no claim key").arg(text));
        }
        return index;
    }

    static QString keyName(int code)
    {
        for (const InputKeyCode* key : std::as_const(InputKeyCode::keyCodes)) {
            if (key->getCode() == code) {
                return key->getName();
            }
        }
        return QString::number(code);
    }

    static QString keyList(const std::vector<int>& keys)
    {
        QStringList names;
        for (const int key : keys) {
            names.append(keyName(key));
        }
        return names.join(QLatin1Char(','));
    }

    QString describe(const KeyEngine::Decision& decision) const
    {
        const QString device = deviceNames.value(decision.device);
        switch (decision.kind) {
        case KeyEngine::Decision::Kind::RUN_COMMAND:
            return QStringLiteral("run %1 %2").arg(decision.index).arg(device);
        case KeyEngine::Decision::Kind::CLAIM: {
            if (decision.index >= claimKeys.size()) {
                return QStringLiteral("claim of unknown key %1 %2").arg(decision.index).arg(device);
            }
            const KeyEngine::Combination& key = claimKeys[decision.index];
            const QString hold = key.holdKeys.empty() ? QString() : keyList(key.holdKeys) + " : ";
            return QStringLiteral("claim %1%2 %3").arg(hold, keyList(key.pressKeys), device);
        }
        case KeyEngine::Decision::Kind::DROP_TRIGGERS:
            return QStringLiteral("drop %1").arg(device);
        }
        return QString();
    }

    QString describeSeen() const
    {
        QStringList texts;
        for (const SeenDecision& decision : seen) {
            texts.append(describe(decision.decision) + " (line " +
                         QString::number(decision.from.number) + ")");
        }
        return texts.isEmpty() ? QStringLiteral("nothing") : texts.join(", ");
    }

    void fail(const Line& line, const QString& what)
    {
        if (failure.isEmpty()) {
            failure = QStringLiteral("case %1, %2: %3").arg(caseName, line.describe(), what);
        }
    }

    QString caseName;
    QString failure;
    KeyEngine engine;

    std::optional<std::vector<KeyEngine::Combination>> pendingCommands;
    std::map<std::size_t, std::size_t> kept;
    bool commandsGiven = false;
    std::vector<KeyEngine::Combination> claimKeys;
    bool claimKeysGiven = false;
    bool collectingClaimKeys = false;

    QHash<QString, KeyEngine::DeviceId> deviceIds;
    QHash<KeyEngine::DeviceId, QString> deviceNames;

    QVector<SeenDecision> seen;
    QVector<KeyEngine::Decision> expected;
    bool expectsNothing = false;
    Line expectationStart;
    Line lastEvent;
};

} // namespace

class KeyEngineTablesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { InputKeyCode::buildTable(); }
    void cleanupTestCase() { InputKeyCode::cleanupTable(); }

    void theCasesAreThere()
    {
        QVERIFY2(!caseFiles().isEmpty(), "no .keys file in " SELVANE_KEY_CASES_DIR);
    }

    void runsCase_data()
    {
        QTest::addColumn<QString>("fileName");
        for (const QString& file : caseFiles()) {
            QTest::newRow(qPrintable(QFileInfo(file).completeBaseName())) << file;
        }
    }

    void runsCase()
    {
        QFETCH(QString, fileName);
        QFile file(QDir(QStringLiteral(SELVANE_KEY_CASES_DIR)).filePath(fileName));
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.errorString()));
        const QString report = KeyCase(fileName).run(QString::fromUtf8(file.readAll()));
        QVERIFY2(report.isEmpty(), qPrintable(report));
    }

    // The driver itself: a case that does not hold says where and why.
    void aWrongExpectationNamesTheEventLine()
    {
        const QString report = KeyCase("wrong").run("command KEY_LEFTCTRL : KEY_F1\n"
                                                    "device kbd\n"
                                                    "kbd down KEY_LEFTCTRL\n"
                                                    "kbd down KEY_F1\n"
                                                    "kbd up KEY_F1, up KEY_LEFTCTRL\n"
                                                    "expect run 1 kbd\n");
        QCOMPARE(report, QStringLiteral("case wrong, line 6 \"expect run 1 kbd\": the decisions "
                                        "differ\n  expected: run 1 kbd\n  actual:   run 0 kbd "
                                        "(line 5)\n  went wrong at line 5 \"kbd up KEY_F1, up "
                                        "KEY_LEFTCTRL\""));
    }

    void aMissingDecisionNamesTheLastEventLine()
    {
        const QString report = KeyCase("missing").run("claimkey KEY_F1\n"
                                                      "device kbd\n"
                                                      "kbd down KEY_F1\n"
                                                      "expect claim KEY_F1 kbd\n");
        QVERIFY2(report.startsWith("case missing, line 4 \"expect claim KEY_F1 kbd\""),
                 qPrintable(report));
        QVERIFY2(report.endsWith("went wrong at line 3 \"kbd down KEY_F1\""), qPrintable(report));
    }

    void anUnexpectedDecisionAtTheEndFailsTheCase()
    {
        const QString report = KeyCase("late").run("claimkey KEY_F1\n"
                                                   "arm KEY_F1\n"
                                                   "device kbd\n"
                                                   "kbd down KEY_F1\n");
        QVERIFY2(report.contains("decisions nobody expected: claim KEY_F1 kbd (line 4)"),
                 qPrintable(report));
    }

    void unknownWordsFailWithTheirLine_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("report");
        QTest::newRow("directive") << "device kbd\npush kbd"
                                   << "case bad, line 2 \"push kbd\": unknown directive or device "
                                      "\"push\"";
        QTest::newRow("key name") << "device kbd\n\nkbd down KEY_CTRL"
                                  << "case bad, line 3 \"kbd down KEY_CTRL\": unknown key name "
                                     "\"KEY_CTRL\"";
        QTest::newRow("record") << "device kbd\nkbd hit KEY_A"
                                << "case bad, line 2 \"kbd hit KEY_A\": unknown record \"hit "
                                   "KEY_A\"";
        QTest::newRow("expectation") << "device kbd\nexpect quit kbd"
                                     << "case bad, line 2 \"expect quit kbd\": expect nothing, "
                                        "run N DEVICE, claim KEYS DEVICE or drop DEVICE";
    }

    void unknownWordsFailWithTheirLine()
    {
        QFETCH(QString, text);
        QFETCH(QString, report);
        QCOMPARE(KeyCase("bad").run(text), report);
    }

private:
    static QStringList caseFiles()
    {
        return QDir(QStringLiteral(SELVANE_KEY_CASES_DIR))
            .entryList({QStringLiteral("*.keys")}, QDir::Files, QDir::Name);
    }
};

QTEST_GUILESS_MAIN(KeyEngineTablesTest)
#include "test_keyengine_tables.moc"
