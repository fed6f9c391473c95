// The box's own state shown in local registers, so that panels, scripts and
// the cloud read it like any device value: the clock and the SD card every
// second, and on the 4G route the modem's state every 20 s.
#pragma once

#include "generalFunc/sleeper.h"
#include <QDateTime>
#include <QString>
#include <QThread>

#include <atomic>

class SpecialRegister : public QThread {
    Q_OBJECT
public:
    static SpecialRegister *getInstance();
    ~SpecialRegister() override;

    // Reads the network route once and starts the thread.
    void init();
    // Ends the thread within a fraction of a second; for an orderly end and tests.
    void stop();

    // What the thread does in its second number counter (from 1).
    void tick(int counter);
    void readSimInfo();
    void dealSysTimeReg();
    void dealSysTimeReg(const QDateTime &now);
    void SetSDdiskReg();

protected:
    void run() override;

private:
    SpecialRegister() = default;
    void readRoute();

    int m_chooseId = 0;    // 1: the box goes out through the 4G modem
    int m_routeModel = 0;
    QString m_modelName;
    QString m_imei;
    int m_simState = 0;
    QString m_iccid;
    int m_signalStrength = 0;
    int m_netState = 0;
    QString m_ifname;
    int m_tick = 0;
    std::atomic<bool> m_running{false};
    lumbra::Sleeper m_sleeper;
};
