#pragma once

#include <QByteArray>
#include <QSerialPort>
#include <QString>
#include <QStringList>

#include <array>

// What the command line asks for, once parsed and checked.
struct LinkOptions
{
    enum Kind { None, Udp, Serial, Usb } kind = None;
    QString host; // --udp HOST:PORT
    quint16 port = 0;
    QString serialPath; // --serial PATH
    qint32 baud = 115200;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
    QSerialPort::FlowControl flow = QSerialPort::NoFlowControl;
    quint16 vid = 0; // --usb VID:PID
    quint16 pid = 0;
};

struct Options
{
    enum Command { Send, Listen, Sim, Demo } command = Demo;
    LinkOptions link;
    // send
    quint8 cmd = 0;
    std::array<quint8, 6> params{};
    QByteArray payload;
    quint8 mode = 0;
    qint32 deviceType = 0;
    qint64 waitMs = 0;
    bool json = false;
    // send and listen: --capture FILE, a pcap file of the link's traffic
    QString capturePath;
    // listen and sim: -1 runs until interrupted
    qint64 durationMs = -1;
    // sim: --serial takes no path
    bool simSerial = false;
};

// Parses the arguments after the program name. On a usage error returns false
// and sets error to a message that names the bad option or value.
bool parseOptions(const QStringList &arguments, Options *options, QString *error);

// The usage text printed with usage errors and for --help.
QString usageText();
