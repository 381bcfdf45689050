#include "Console.h"

#include <cstdio>
#include <mutex>

#include "CmdDealModule.h"

namespace {
void writeLine(std::FILE *stream, const QByteArray &text)
{
    const QByteArray line = text + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stream);
    std::fflush(stream);
}
} // namespace

void stderrMessageHandler(QtMsgType, const QMessageLogContext &, const QString &message)
{
    writeLine(stderr, message.toLocal8Bit());
}

void printOut(const QString &line)
{
    writeLine(stdout, line.toUtf8());
}

void printErr(const QString &line)
{
    writeLine(stderr, line.toLocal8Bit());
}

std::deque<ProtocolData> takeRecords()
{
    std::deque<ProtocolData> records;
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    records.swap(CmdDealModule::receivequeueHexCmd);
    return records;
}
