// What the box is: serial number, model, versions, network and 4G state.
#pragma once

#include <QMutex>
#include <QString>

class deviceInfo {
public:
    static deviceInfo *getInstance();

    // Reads the serial number and logs, once, every box file that is missing.
    void init();
    // The serial number read by init(); empty when the box has none.
    QString sn() const;
    // The box model ("MODEL" of config.ini), read afresh; empty when unknown.
    QString model() const;
    // A compact JSON object describing the box, read afresh on every call.
    QString DevInfoJson() const;

private:
    deviceInfo() = default;

    mutable QMutex m_mutex;
    QString m_sn;
};
