#include "secrets.h"

#include <QRegularExpression>

namespace lumbra {

namespace {

// A key name holding one of the secret words, as a regex fragment.
constexpr const char *kSecretName = R"([A-Za-z0-9_.-]*(?:pass|pwd|secret|token)[A-Za-z0-9_.-]*)";

struct Rule {
    QRegularExpression pattern;
    QString replacement;
};

const QList<Rule> &rules()
{
    static const QList<Rule> list = [] {
        const QString name = QString::fromLatin1(kSecretName);
        const auto opts = QRegularExpression::CaseInsensitiveOption;
        return QList<Rule>{
            // JSON quoted inside a JSON string: the value ends at the next \".
            {QRegularExpression(QStringLiteral(R"re((\\"%1\\"\s*:\s*)\\"(?:.*?)\\")re").arg(name), opts),
             QStringLiteral(R"re(\1\"***\")re")},
            // Plain JSON string values, escapes included.
            {QRegularExpression(QStringLiteral(R"re(("%1"\s*:\s*)"(?:[^"\\]|\\.)*")re").arg(name), opts),
             QStringLiteral(R"re(\1"***")re")},
            // Plain JSON numbers and literals.
            {QRegularExpression(QStringLiteral(R"re(("%1"\s*:\s*)(?!["\s])[^,}\]\s]+)re").arg(name), opts),
             QStringLiteral(R"re(\1"***")re")},
            // key=value and key: value outside JSON, to the end of the word.
            {QRegularExpression(QStringLiteral(R"re((^|[\s;,&?])(%1)(\s*[=:]\s*)(?!["\\\s])[^\s;,&]+)re").arg(name),
                                opts | QRegularExpression::MultilineOption),
             QStringLiteral(R"re(\1\2\3***)re")},
        };
    }();
    return list;
}

}  // namespace

bool mayHoldSecret(const char *text, size_t size)
{
    static const char *const words[] = {"pass", "pwd", "secret", "token"};
    for (size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(text[i] | 0x20);  // ASCII lower case
        if (c != 'p' && c != 's' && c != 't')
            continue;
        for (const char *w : words) {
            size_t k = 0;
            while (w[k] && i + k < size && static_cast<char>(text[i + k] | 0x20) == w[k])
                ++k;
            if (!w[k])
                return true;
        }
    }
    return false;
}

bool isSecretKey(const QString &key)
{
    static const QRegularExpression re(QStringLiteral("pass|pwd|secret|token"),
                                       QRegularExpression::CaseInsensitiveOption);
    return re.match(key).hasMatch();
}

QString maskSecrets(const QString &text)
{
    if (!isSecretKey(text))
        return text;
    QString out = text;
    for (const Rule &r : rules())
        out.replace(r.pattern, r.replacement);
    return out;
}

QByteArray maskSecrets(const QByteArray &text)
{
    return maskSecrets(QString::fromUtf8(text)).toUtf8();
}

}  // namespace lumbra
