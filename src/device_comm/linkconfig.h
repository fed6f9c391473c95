// Reading "./iotRunTime/LinkConfiguration.json" and staging each link's
// private copy of its driver.
#pragma once

#include "linkvalue.h"

#include <QList>

namespace lumbra {

// Appends one record per link; logs and leaves the list empty when the file
// is missing, unreadable or not JSON.
void readLinkValues(QList<LinkValue> &links);

// Copies "./iotRunTime/driver/lib<driver>.so" to the link's own file under
// the box's driver folder, unless that file exists already.
void stageDriver(const LinkValue &link);

}  // namespace lumbra
