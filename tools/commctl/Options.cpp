#include "Options.h"

#include <QHostAddress>

namespace {
// Decimal or 0x-prefixed hexadecimal, within [low, high].
bool parseNumber(const QString &text, qint64 low, qint64 high, qint64 *value)
{
    bool ok = false;
    qint64 result = 0;
    if (text.startsWith(QLatin1String("0x")) || text.startsWith(QLatin1String("0X"))) {
        const QString digits = text.mid(2);
        if (digits.isEmpty() || digits.size() > 16)
            return false;
        result = digits.toLongLong(&ok, 16);
    } else {
        if (text.isEmpty() || text.startsWith('+') || text.trimmed() != text)
            return false;
        result = text.toLongLong(&ok, 10);
    }
    if (!ok || result < low || result > high)
        return false;
    *value = result;
    return true;
}

bool parseHexWord(const QString &text, quint16 *value)
{
    bool ok = false;
    if (text.isEmpty() || text.size() > 4)
        return false;
    const uint v = text.toUInt(&ok, 16);
    if (!ok || text.contains(QLatin1String("x"), Qt::CaseInsensitive) || text.startsWith('+'))
        return false;
    *value = quint16(v);
    return true;
}

class Parser
{
public:
    Parser(const QStringList &args, Options *options, QString *error)
        : m_args(args)
        , m_options(options)
        , m_error(error)
    {
    }

    bool run();

private:
    bool fail(const QString &message)
    {
        *m_error = message;
        return false;
    }
    bool takeValue(int &i, QString *value)
    {
        const QString option = m_args[i];
        if (i + 1 >= m_args.size())
            return fail(QStringLiteral("option %1 needs a value").arg(option));
        *value = m_args[++i];
        return true;
    }
    bool number(const QString &option, const QString &text, qint64 low, qint64 high, qint64 *value)
    {
        if (!parseNumber(text, low, high, value))
            return fail(
                QStringLiteral("bad value for %1: '%2' (expected a number from %3 to %4, decimal or 0x-hexadecimal)")
                    .arg(option, text)
                    .arg(low)
                    .arg(high));
        return true;
    }
    bool linkOption(int &i, bool *handled);
    bool udpEndpoint(const QString &text, bool hostOptional);

    const QStringList &m_args;
    Options *m_options;
    QString *m_error;
    bool m_sawCmd = false;
    bool m_sawParams = false;
    // The first line setting given (--baud, ...): they only mean something
    // on a serial link, and silently dropping one would hide a mistake.
    QString m_serialSetting;
};

bool Parser::udpEndpoint(const QString &text, bool hostOptional)
{
    LinkOptions &link = m_options->link;
    const int colon = text.lastIndexOf(':');
    QString host = colon >= 0 ? text.left(colon) : QString();
    const QString portText = colon >= 0 ? text.mid(colon + 1) : text;
    if (colon < 0 && !hostOptional)
        return fail(QStringLiteral("bad value for --udp: '%1' (expected HOST:PORT)").arg(text));
    if (host.startsWith('[') && host.endsWith(']'))
        host = host.mid(1, host.size() - 2);
    if (host.isEmpty()) {
        if (!hostOptional)
            return fail(QStringLiteral("bad value for --udp: '%1' (expected HOST:PORT)").arg(text));
        host = QStringLiteral("127.0.0.1");
    }
    if (QHostAddress(host).isNull())
        return fail(QStringLiteral("bad value for --udp: '%1' (HOST must be an IPv4 or IPv6 address)").arg(text));
    qint64 port = 0;
    if (!parseNumber(portText, hostOptional ? 0 : 1, 65535, &port))
        return fail(QStringLiteral("bad value for --udp: '%1' (PORT must be a number from %2 to 65535)")
                        .arg(text)
                        .arg(hostOptional ? 0 : 1));
    link.kind = LinkOptions::Udp;
    link.host = host;
    link.port = quint16(port);
    return true;
}

bool Parser::linkOption(int &i, bool *handled)
{
    *handled = true;
    const QString option = m_args[i];
    LinkOptions &link = m_options->link;
    QString value;
    auto setKind = [&](LinkOptions::Kind kind) {
        if (link.kind != LinkOptions::None && link.kind != kind)
            return fail(QStringLiteral("option %1: only one of --udp, --serial, --usb may be given").arg(option));
        link.kind = kind;
        return true;
    };
    if (option == QLatin1String("--udp")) {
        if (!setKind(LinkOptions::Udp) || !takeValue(i, &value))
            return false;
        return udpEndpoint(value, m_options->command == Options::Sim);
    }
    if (option == QLatin1String("--serial")) {
        if (!setKind(LinkOptions::Serial))
            return false;
        if (m_options->command == Options::Sim) {
            m_options->simSerial = true;
            return true;
        }
        if (!takeValue(i, &value))
            return false;
        if (value.isEmpty() || value.startsWith(QLatin1String("--")))
            return fail(QStringLiteral("bad value for --serial: '%1' (expected a port path)").arg(value));
        link.serialPath = value;
        return true;
    }
    if (option == QLatin1String("--usb")) {
        if (!setKind(LinkOptions::Usb) || !takeValue(i, &value))
            return false;
        const QStringList parts = value.split(':');
        if (parts.size() != 2 || !parseHexWord(parts[0], &link.vid) || !parseHexWord(parts[1], &link.pid))
            return fail(
                QStringLiteral("bad value for --usb: '%1' (expected VID:PID in hexadecimal, for example 0483:5750)")
                    .arg(value));
        return true;
    }
    if (option == QLatin1String("--baud")) {
        qint64 baud = 0;
        if (!takeValue(i, &value) || !number(option, value, 1, 0x7FFFFFFF, &baud))
            return false;
        link.baud = qint32(baud);
        return true;
    }
    if (option == QLatin1String("--data-bits")) {
        if (!takeValue(i, &value))
            return false;
        if (value == QLatin1String("5"))
            link.dataBits = QSerialPort::Data5;
        else if (value == QLatin1String("6"))
            link.dataBits = QSerialPort::Data6;
        else if (value == QLatin1String("7"))
            link.dataBits = QSerialPort::Data7;
        else if (value == QLatin1String("8"))
            link.dataBits = QSerialPort::Data8;
        else
            return fail(QStringLiteral("bad value for --data-bits: '%1' (expected 5, 6, 7 or 8)").arg(value));
        return true;
    }
    if (option == QLatin1String("--parity")) {
        if (!takeValue(i, &value))
            return false;
        if (value == QLatin1String("none"))
            link.parity = QSerialPort::NoParity;
        else if (value == QLatin1String("even"))
            link.parity = QSerialPort::EvenParity;
        else if (value == QLatin1String("odd"))
            link.parity = QSerialPort::OddParity;
        else if (value == QLatin1String("space"))
            link.parity = QSerialPort::SpaceParity;
        else if (value == QLatin1String("mark"))
            link.parity = QSerialPort::MarkParity;
        else
            return fail(
                QStringLiteral("bad value for --parity: '%1' (expected none, even, odd, space or mark)").arg(value));
        return true;
    }
    if (option == QLatin1String("--stop-bits")) {
        if (!takeValue(i, &value))
            return false;
        if (value == QLatin1String("1"))
            link.stopBits = QSerialPort::OneStop;
        else if (value == QLatin1String("1.5"))
            link.stopBits = QSerialPort::OneAndHalfStop;
        else if (value == QLatin1String("2"))
            link.stopBits = QSerialPort::TwoStop;
        else
            return fail(QStringLiteral("bad value for --stop-bits: '%1' (expected 1, 1.5 or 2)").arg(value));
        return true;
    }
    if (option == QLatin1String("--flow")) {
        if (!takeValue(i, &value))
            return false;
        if (value == QLatin1String("none"))
            link.flow = QSerialPort::NoFlowControl;
        else if (value == QLatin1String("hardware"))
            link.flow = QSerialPort::HardwareControl;
        else if (value == QLatin1String("software"))
            link.flow = QSerialPort::SoftwareControl;
        else
            return fail(QStringLiteral("bad value for --flow: '%1' (expected none, hardware or software)").arg(value));
        return true;
    }
    *handled = false;
    return true;
}

bool Parser::run()
{
    if (m_args.isEmpty())
        return fail(QStringLiteral("no command given"));
    const QString command = m_args[0];
    if (command == QLatin1String("send"))
        m_options->command = Options::Send;
    else if (command == QLatin1String("listen"))
        m_options->command = Options::Listen;
    else if (command == QLatin1String("sim"))
        m_options->command = Options::Sim;
    else if (command == QLatin1String("demo"))
        m_options->command = Options::Demo;
    else
        return fail(QStringLiteral("unknown command '%1'").arg(command));

    const Options::Command cmd = m_options->command;
    for (int i = 1; i < m_args.size(); ++i) {
        const QString option = m_args[i];
        QString value;
        qint64 number = 0;
        if (cmd == Options::Demo)
            return fail(QStringLiteral("demo takes no options, got '%1'").arg(option));
        bool handled = false;
        if (!linkOption(i, &handled))
            return false;
        if (handled) {
            const bool serialSetting = option != QLatin1String("--udp") && option != QLatin1String("--serial")
                                       && option != QLatin1String("--usb");
            if (serialSetting && cmd == Options::Sim)
                return fail(QStringLiteral("option %1 is not accepted by sim").arg(option));
            if (serialSetting && m_serialSetting.isEmpty())
                m_serialSetting = option;
            continue;
        }
        if (option == QLatin1String("--json") && cmd != Options::Sim) {
            m_options->json = true;
        } else if (option == QLatin1String("--capture") && cmd != Options::Sim) {
            if (!takeValue(i, &value))
                return false;
            if (value.isEmpty())
                return fail(QStringLiteral("bad value for --capture: '' (expected a file name)"));
            m_options->capturePath = value;
        } else if (option == QLatin1String("--duration") && cmd != Options::Send) {
            if (!takeValue(i, &value) || !this->number(option, value, 0, 0x7FFFFFFF, &number))
                return false;
            m_options->durationMs = number;
        } else if (cmd == Options::Send && option == QLatin1String("--cmd")) {
            if (!takeValue(i, &value) || !this->number(option, value, 0, 255, &number))
                return false;
            m_options->cmd = quint8(number);
            m_sawCmd = true;
        } else if (cmd == Options::Send && option == QLatin1String("--params")) {
            if (!takeValue(i, &value))
                return false;
            const QStringList parts = value.split(',');
            if (parts.size() != 6)
                return fail(
                    QStringLiteral("bad value for --params: '%1' (expected six bytes B1,B2,B3,B4,B5,B6)").arg(value));
            for (int p = 0; p < 6; ++p) {
                if (!this->number(option, parts[p], 0, 255, &number))
                    return false;
                m_options->params[size_t(p)] = quint8(number);
            }
            m_sawParams = true;
        } else if (cmd == Options::Send && option == QLatin1String("--payload")) {
            if (!takeValue(i, &value))
                return false;
            bool valid = value.size() % 2 == 0;
            for (QChar c : value)
                valid = valid && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'));
            if (!valid)
                return fail(
                    QStringLiteral("bad value for --payload: '%1' (expected an even number of hex digits)").arg(value));
            m_options->payload = QByteArray::fromHex(value.toLatin1());
        } else if (cmd == Options::Send && option == QLatin1String("--mode")) {
            if (!takeValue(i, &value) || !this->number(option, value, 0, 255, &number))
                return false;
            m_options->mode = quint8(number);
        } else if (cmd == Options::Send && option == QLatin1String("--device-type")) {
            if (!takeValue(i, &value) || !this->number(option, value, -2147483648LL, 2147483647LL, &number))
                return false;
            m_options->deviceType = qint32(number);
        } else if (cmd == Options::Send && option == QLatin1String("--wait")) {
            if (!takeValue(i, &value) || !this->number(option, value, 0, 0x7FFFFFFF, &number))
                return false;
            m_options->waitMs = number;
        } else {
            return fail(QStringLiteral("unknown option '%1' for %2").arg(option, command));
        }
    }

    if (cmd != Options::Demo && m_options->link.kind == LinkOptions::None)
        return fail(QStringLiteral("%1 needs a link: --udp, --serial or --usb").arg(command));
    if (!m_serialSetting.isEmpty() && m_options->link.kind != LinkOptions::Serial)
        return fail(QStringLiteral("option %1 applies to a serial link (--serial) only").arg(m_serialSetting));
    if (cmd == Options::Send && !m_sawCmd)
        return fail(QStringLiteral("send needs --cmd"));
    if (cmd == Options::Send && !m_sawParams)
        return fail(QStringLiteral("send needs --params"));
    return true;
}
} // namespace

bool parseOptions(const QStringList &arguments, Options *options, QString *error)
{
    *options = Options();
    return Parser(arguments, options, error).run();
}

QString usageText()
{
    return QStringLiteral(
        "usage:\n"
        "  commctl send   LINK --cmd BYTE --params B1,B2,B3,B4,B5,B6 [--payload HEX] [--mode N] [--device-type N] "
        "[--wait MS] [--json] [--capture FILE]\n"
        "  commctl listen LINK [--duration MS] [--json] [--capture FILE]\n"
        "  commctl sim    (--udp [HOST:]PORT | --serial | --usb VID:PID) [--duration MS]\n"
        "  commctl demo\n"
        "LINK is one of:\n"
        "  --udp HOST:PORT        network transport: setDeviceIP(HOST), setPort(PORT)\n"
        "  --serial PATH [--baud N] [--data-bits 5|6|7|8] [--parity none|even|odd|space|mark] [--stop-bits 1|1.5|2] "
        "[--flow none|hardware|software]\n"
        "                         (defaults 115200, 8, none, 1, none)\n"
        "  --usb VID:PID          hexadecimal identifiers, for example 0483:5750\n"
        "BYTE, N and each B accept decimal or 0x-prefixed hexadecimal; HEX is an even number of hex digits.\n"
        "--capture FILE writes every byte the link writes and reads to FILE as a pcap capture (network: IP/UDP\n"
        "packets; serial: link type USER0; USB: link type USER1), for Wireshark with the libcomm dissector.\n");
}
