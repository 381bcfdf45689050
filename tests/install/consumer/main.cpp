// A minimal application built against the installed library: it only uses the
// installed headers and libraries, and checks that they work together.
#include <CommModuleVersion.h>
#include <PortBase.h>
#include <PortInterface.h>
#include <PortSerial.h>
#include <PortUDP.h>
#include <PortUSB.h>
#include <PortWireObserver.h>
#include <CmdDealModule.h>
#include <ProtocolData.h>

#include <cstdio>
#include <cstring>

namespace {
// An observer of the wire that looks at nothing.
class CountingObserver : public PortWireObserver
{
public:
    void observe(const PortWirePacket &) override {}
};
} // namespace

int main()
{
    if (commModuleVersion() != COMM_MODULE_VERSION
        || std::strcmp(commModuleVersionString(), COMM_MODULE_VERSION_STR) != 0) {
        std::puts("consumer: the library's version is not the headers'");
        return 1;
    }
    {
        CountingObserver observer;
        PortWireObserver::install(&observer);
        if (PortWireObserver::installed() != &observer) {
            std::puts("consumer: the wire observer was not installed");
            return 1;
        }
    }
    if (PortWireObserver::installed() != nullptr) {
        std::puts("consumer: a destroyed wire observer stayed installed");
        return 1;
    }
    if (std::strcmp(PortBase::staticMetaObject.className(), "PortBase") != 0) {
        std::puts("consumer: PortBase meta-object missing");
        return 1;
    }
    if (PortUDP::staticMetaObject.superClass() != &PortBase::staticMetaObject) {
        std::puts("consumer: PortUDP meta-object missing");
        return 1;
    }
    {
        PortSerial serial;
        if (serial.staticMetaObject.superClass() != &PortBase::staticMetaObject || serial.openUSB(1, 2)
            || serial.m_com == nullptr || serial.m_com->isOpen()) {
            std::puts("consumer: PortSerial unusable");
            return 1;
        }
    }
    {
        PortUSB usb;
        if (usb.staticMetaObject.superClass() != &PortBase::staticMetaObject
            || usb.openSerialPort(QStringLiteral("/dev/null"), QSerialPort::Baud9600, QSerialPort::OneStop,
                                  QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8)) {
            std::puts("consumer: PortUSB unusable");
            return 1;
        }
    }
    {
        // The factory, as an application uses it.
        PortBase *port = PortInterface::creatCoreObj(ConnSerial);
        if (PortInterface::iCORE != port || std::strcmp(port->metaObject()->className(), "PortSerial") != 0) {
            std::puts("consumer: factory did not make a serial transport");
            return 1;
        }
        port = PortInterface::creatCoreObj(ConnType(7));
        if (std::strcmp(port->metaObject()->className(), "PortUDP") != 0) {
            std::puts("consumer: factory did not fall back to the network transport");
            return 1;
        }
        delete PortInterface::iCORE;
        PortInterface::iCORE = nullptr;
    }
    ProtocolData record;
    record.commandByte = 0x5A;
    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.push_back(record);
    }
    CmdDealModule module;
    module.clearQueue();
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    if (!CmdDealModule::receivequeueHexCmd.empty()) {
        std::puts("consumer: queue not cleared");
        return 1;
    }
    std::puts("consumer: ok");
    return 0;
}
