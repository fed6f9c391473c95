// The data services' configuration files: a JSON object whose "data" array
// holds one object per item, edited online item by item.
#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>

namespace lumbra {

// What a service logs when its file cannot be used; null: nothing.
struct ConfigFileTexts {
    const char *noSuch;
    const char *openFail;
    const char *parseFail;
};

// The file's top-level object; false, with the matching text logged, when
// the file is missing, unreadable or no JSON object.
bool readConfigObject(const QString &path, const ConfigFileTexts &texts, QJsonObject *root);

// The same for a file with many items: *root gets the object with an empty
// "data", and each item of "data" goes to each, in order, one at a time, so
// that the whole file never becomes one document in memory. Nothing goes to
// each when the file is not valid JSON.
bool readConfigItems(const QString &path, const ConfigFileTexts &texts, QJsonObject *root,
                     const std::function<void(const QJsonValue &)> &each);

// Replaces the file with root, written aside and renamed so that a power cut
// leaves the old file or the new one.
bool writeConfigObject(const QString &path, const QJsonObject &root);

// Applies an online change to the file's "data": "operation_type" "add"
// appends the message's "data" objects, "modify" replaces the items whose
// idKey matches, "delete" removes those whose idKey is in "ids" ("3,7" or
// an array). With
// itemLabel set, each changed item is logged as
// "operation_type<op> <itemLabel>:<id>". False when nothing was written.
// How an edit treats what is not there yet: upsert makes "add" and "modify"
// both replace the item with the same id or append it; createMissing starts
// from an empty document when the file does not exist.
struct EditOptions {
    bool upsert = false;
    bool createMissing = false;
};

bool editConfigFile(const QString &path, const ConfigFileTexts &texts, const QString &message, const char *idKey,
                    const char *itemLabel = nullptr, EditOptions options = {});

}  // namespace lumbra
