#include "globals.h"

#include "generalFunc.h"

zlog_category_t *g_zlog = nullptr;
int32_t g_zonetime = 28800;
QString g_IotVersion = unitTool::IotVersion();
