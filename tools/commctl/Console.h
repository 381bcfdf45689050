#pragma once

#include <QString>
#include <QtGlobal>

#include <deque>

#include "ProtocolData.h"

// Writes every Qt log line (the library's included) to standard error, one per
// line, also when standard error is not a terminal.
void stderrMessageHandler(QtMsgType type, const QMessageLogContext &context, const QString &message);

// One line on standard output or standard error, flushed at once.
void printOut(const QString &line);
void printErr(const QString &line);

// Takes every record off the shared receive queue, in queue order.
std::deque<ProtocolData> takeRecords();
