// The modes of quarn2_report. Each reads the site, writes its output and records its findings.
#pragma once

#include "report_site.h"

void RunStatus(Site& site);
void RunList(Site& site);
void RunHistory(Site& site);

// Sets the exit status of a monitoring plugin and does not throw for a state that cannot be read.
void RunCheck(Site& site);

// Accesses the storage that BACKUP_TOKEN identifies, and writes only to the install root's tmp.
// Throws std::exception when the storage cannot be opened or does not answer.
void RunVerify(Site& site);

// Throws std::runtime_error when the limits, or the size of the upload, are unknown.
void RunPlan(Site& site);

// Throws std::runtime_error when the day cannot be restored.
void RunChain(Site& site);
