#include "configfile.h"

#include "globals.h"
#include "jsonsplit.h"
#include "jsonvalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#include <climits>

namespace lumbra {

namespace {

void say(const char *text)
{
    if (text)
        zlog_info(g_zlog, "%s", text);
}

bool openConfig(QFile &file, const ConfigFileTexts &texts)
{
    if (!file.exists()) {
        say(texts.noSuch);
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        say(texts.openFail);
        return false;
    }
    return true;
}

bool objectFrom(const QByteArray &text, const ConfigFileTexts &texts, QJsonObject *root)
{
    QJsonDocument doc = QJsonDocument::fromJson(text);
    if (!doc.isObject()) {
        say(texts.parseFail);
        return false;
    }
    *root = doc.object();
    return true;
}

// One item of an array on its own: wrapped, since a document must be an
// object or an array.
bool parseItem(const QByteArray &text, const JsonSpan &span, QJsonValue *item)
{
    QByteArray wrapped;
    wrapped.reserve(span.end - span.begin + 2);
    wrapped.append('[').append(text.constData() + span.begin, span.end - span.begin).append(']');
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(wrapped, &error);
    if (error.error != QJsonParseError::NoError || doc.array().size() != 1)
        return false;
    *item = doc.array().at(0);
    return true;
}

}  // namespace

bool readConfigObject(const QString &path, const ConfigFileTexts &texts, QJsonObject *root)
{
    QFile file(path);
    return openConfig(file, texts) && objectFrom(file.readAll(), texts, root);
}

bool readConfigItems(const QString &path, const ConfigFileTexts &texts, QJsonObject *root,
                     const std::function<void(const QJsonValue &)> &each)
{
    QFile file(path);
    if (!openConfig(file, texts))
        return false;
    // Mapped rather than read: the text leaves memory with the mapping.
    const qint64 size = file.size();
    const uchar *mapped = size > 0 && size < INT_MAX ? file.map(0, size) : nullptr;
    const QByteArray text = mapped ? QByteArray::fromRawData(reinterpret_cast<const char *>(mapped), int(size))
                                   : file.readAll();
    JsonSpan array;
    QVector<JsonSpan> spans;
    if (!splitArrayMember(text, "data", &array, &spans)) {
        QJsonObject whole;
        if (!objectFrom(text, texts, &whole))
            return false;
        *root = whole;
        for (const QJsonValue &item : whole.value("data").toArray())
            each(item);
        return true;
    }
    QByteArray rest = text.left(array.begin);
    rest.append("[]").append(text.constData() + array.end, text.size() - array.end);
    if (!objectFrom(rest, texts, root))
        return false;
    // Every item is checked before the first is handed out: a file broken in
    // its last item loads nothing, as a broken file always did.
    QJsonValue item;
    for (const JsonSpan &span : qAsConst(spans)) {
        if (!parseItem(text, span, &item)) {
            say(texts.parseFail);
            return false;
        }
    }
    for (const JsonSpan &span : qAsConst(spans)) {
        parseItem(text, span, &item);
        each(item);
    }
    return true;
}

bool writeConfigObject(const QString &path, const QJsonObject &root)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(root).toJson()) >= 0 && file.commit())
        return true;
    zlog_error(g_zlog, "config write fail:%s %s", path.toLocal8Bit().constData(),
               file.errorString().toLocal8Bit().constData());
    return false;
}

namespace {

struct Edit {
    QString operation;
    const char *idKey;
    const char *itemLabel;

    int idOf(const QJsonValue &item) const { return jsonInt(item.toObject().value(idKey)); }
    void logChange(int id) const
    {
        if (itemLabel)
            zlog_info(g_zlog, "operation_type%s %s:%d", operation.toLocal8Bit().constData(), itemLabel, id);
    }
};

void modifyItems(QJsonArray &items, const QJsonArray &changes, const Edit &edit, bool appendMissing)
{
    for (const QJsonValue &v : changes) {
        const int id = edit.idOf(v);
        bool found = false;
        for (int i = 0; i < items.size(); ++i) {
            if (edit.idOf(items.at(i)) == id) {
                items[i] = v;
                found = true;
            }
        }
        if (!found && appendMissing)
            items.append(v);
        if (found || appendMissing)
            edit.logChange(id);
    }
}

void deleteItems(QJsonArray &items, const QJsonValue &ids, const Edit &edit)
{
    const QList<int> gone = jsonIds(ids);
    for (int i = items.size() - 1; i >= 0; --i) {
        const int id = edit.idOf(items.at(i));
        if (gone.contains(id)) {
            items.removeAt(i);
            edit.logChange(id);
        }
    }
}

}  // namespace

bool editConfigFile(const QString &path, const ConfigFileTexts &texts, const QString &message, const char *idKey,
                    const char *itemLabel, EditOptions options)
{
    QJsonObject root;
    const bool startEmpty = options.createMissing && !QFile::exists(path);
    if (!startEmpty && !readConfigObject(path, texts, &root))
        return false;
    if (startEmpty)
        QDir().mkpath(QFileInfo(path).path());
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(message.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        const QString why = error.error != QJsonParseError::NoError ? error.errorString() : "not an object";
        zlog_info(g_zlog, "json parse fail:%s", why.toLocal8Bit().constData());
        return false;
    }
    const QJsonObject msg = doc.object();
    const Edit edit{msg.value("operation_type").toString(), idKey, itemLabel};
    QJsonArray items = root.value("data").toArray();
    if (options.upsert && (edit.operation == "add" || edit.operation == "modify")) {
        modifyItems(items, msg.value("data").toArray(), edit, true);
    } else if (edit.operation == "add") {
        for (const QJsonValue &v : msg.value("data").toArray()) {
            items.append(v);
            edit.logChange(edit.idOf(v));
        }
    } else if (edit.operation == "modify") {
        modifyItems(items, msg.value("data").toArray(), edit, false);
    } else if (edit.operation == "delete") {
        deleteItems(items, msg.value("ids"), edit);
    } else {
        zlog_info(g_zlog, "unknown operation_type \"%s\", %s left as it was", edit.operation.toLocal8Bit().constData(),
                  path.toLocal8Bit().constData());
        return false;
    }
    root.insert("data", items);
    return writeConfigObject(path, root);
}

}  // namespace lumbra
