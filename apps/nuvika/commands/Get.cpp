#include "Get.h"

#include "base/Exit.h"
#include "base/Input.h"
#include "base/Options.h"
#include "base/Output.h"
#include "base/Target.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QFileInfo>
#include <QtCore/QTimer>

#include <algorithm>
#include <functional>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr qint64 kLargestBody = 1 << 30; // it is sent in one piece
constexpr int kConnectMs = 30000; // unless told otherwise
constexpr int kLongestPauseMs = 600000; // between attempts, as curl's
constexpr int kHandshakeTimeout = 5;
constexpr int kMostRetries = 1000;

class GetCommand : public QObject
{
public:
    GetCommand(const Target& target, bool bHead)
        : m_target(target), m_bHead(bHead), m_client(target.makeClient(false))
    {
        connect(m_client.get(), &HttpsClient::responseHeaderReceived, this,
            [this](int, const HttpResponseHeader& header) { takeHead(header); });
        connect(m_client.get(), &HttpsClient::contentChunk, this,
            [this](int, const HttpResponseHeader& header, const char* data, int size, Marker) {
                takeHead(header);
                if (!write(data, size))
                    return;
                // A body of known length ends with its last piece, without another signal.
                QTimer::singleShot(0, this, [this] {
                    if (m_client->numOfPendingRequests() == 0)
                        finish();
                });
            });
        connect(m_client.get(), &HttpsClient::requestFinished, this,
            [this](int, const HttpResponseHeader& header, const char* data, int size, Marker) {
                takeHead(header);
                if (write(data, size))
                    finish();
            });
        connect(m_client.get(), &HttpsClient::requestFailed, this,
            [this](int id) { fail(m_client->failureOf(id)); });
    }

    void setTimes(const HttpTimeLimits& limits, int nRetries)
    {
        m_client->setTimeLimits(limits);
        m_nRetries = nRetries;
    }
    void send(const QString& method, const QByteArray& body, const QString& contentType)
    {
        HttpRequestHeader header(method, m_target.path);
        header.addValue(QStringLiteral("Host"), m_target.authority());
        header.addValue(QStringLiteral("Connection"), QStringLiteral("close"));
        header.addValue(QStringLiteral("Accept"), QStringLiteral("*/*"));
        if (!contentType.isEmpty()) {
            header.addValue(QStringLiteral("Content-Type"), contentType);
            header.setContentLength(body.size());
        }
        begin([=] {
            SharedPoolBuffer content = m_pool->getBuffer();
            content.setData(body.constData(), body.size());
            // Credentials only in answer to a challenge: a password is not sent in the clear to who asks for
            // none.
            constexpr int kOwnAuthorization = 1;
            m_client->request(header, true, &content, m_target.user, m_target.password, kOwnAuthorization);
        });
    }
    // Unlike the others, a form carries credentials at once.
    void sendForm(const QString& file, const QByteArray& content, const QString& contentType)
    {
        const QString disposition = QStringLiteral("name=\"file\"; filename=\"%1\"")
                                        .arg(QFileInfo(file).fileName().remove(QLatin1Char('"')));
        begin([=] {
            m_client->postMultipartFormData(
                m_target.path, content, disposition, contentType, m_target.user, m_target.password);
        });
    }
    ~GetCommand() override { m_pool->release(); }

private:
    void begin(std::function<void()> ask)
    {
        m_ask = std::move(ask);
        m_ask();
    }
    void takeHead(const HttpResponseHeader& header)
    {
        if (m_nStatus != 0)
            return;
        m_nStatus = header.statusCode();
        if (m_bHead)
            Output::write(header.toString().toLatin1());
    }
    // Nothing more is wanted of an answer that cannot be written.
    static bool write(const char* data, int size)
    {
        const bool bWritten = Output::write(QByteArray::fromRawData(data, size));
        if (!bWritten)
            QCoreApplication::exit(Exit::kWrite);
        return bWritten;
    }
    void finish()
    {
        Output::flush(); // before what else is to be said
        int code = Exit::kOk;
        if (m_nStatus == 401) {
            Output::complain((m_target.user.isEmpty() ? QStringLiteral("%1 asks for a user and a password")
                                                      : QStringLiteral("%1 refuses this user or password"))
                                 .arg(m_target.shown()));
            code = Exit::kLoginDenied;
        } else if (m_nStatus >= 400) {
            Output::complain(QStringLiteral("%1 answered with status %2")
                                 .arg(m_target.shown(), QString::number(m_nStatus)));
            code = Exit::kHttpError;
        }
        QCoreApplication::exit(code);
    }
    static int exitCodeOf(HttpFailure::Reason reason)
    {
        switch (reason) {
        case HttpFailure::eLookup:
            return Exit::kNoHost;
        case HttpFailure::eConnect:
            return Exit::kNoConnection;
        case HttpFailure::eTls:
            return Exit::kTls;
        case HttpFailure::eCertificate:
            return Exit::kCertificate;
        case HttpFailure::eTimeLimit:
            return Exit::kTimeout;
        case HttpFailure::eRefused:
            return Exit::kUsage;
        default:
            return Exit::kLost;
        }
    }
    // Of what may pass; nothing of an answer has been written.
    bool mayPass(HttpFailure::Reason reason) const
    {
        return m_nStatus == 0
            && (reason == HttpFailure::eConnect || reason == HttpFailure::eLost
                || reason == HttpFailure::eTimeLimit);
    }
    void fail(const HttpFailure& failure)
    {
        if (m_nRetries > 0 && mayPass(failure.reason)) {
            --m_nRetries;
            QTimer::singleShot(m_nPauseMs, this, m_ask);
            m_nPauseMs = std::min(2 * m_nPauseMs, kLongestPauseMs);
            return;
        }
        const QString text = failure.reason == HttpFailure::eLookup
            ? QStringLiteral("no host \"%1\" is known").arg(m_target.host)
            : failure.text;
        Output::complain(QStringLiteral("%1: %2").arg(m_target.shown(), text));
        QCoreApplication::exit(
            failure.code == kHandshakeTimeout ? Exit::kTimeout : exitCodeOf(failure.reason));
    }

    Target m_target;
    bool m_bHead;
    int m_nStatus = 0;
    int m_nRetries = 0;
    int m_nPauseMs = 1000;
    std::function<void()> m_ask;
    SharedBufferPool* m_pool = new SharedBufferPool; // released, never deleted
    std::unique_ptr<HttpsClient> m_client;
};

void addOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Sends one request and writes the answer's body to standard output.\n"
                       "Credentials in the URL answer a Basic or Digest challenge."));
    parser.addPositionalArgument(
        QStringLiteral("URL"), QStringLiteral("http[s]://user:password@host:port/path"));
    parser.addOptions({
        {{QStringLiteral("i"), QStringLiteral("include")}, QStringLiteral("Write the head too.")},
        {QStringLiteral("post"), QStringLiteral("POST the content of FILE (- for standard input)."),
            QStringLiteral("FILE")},
        {QStringLiteral("put"), QStringLiteral("PUT the content of FILE."), QStringLiteral("FILE")},
        {QStringLiteral("form"), QStringLiteral("Upload FILE as a form's field \"file\"."),
            QStringLiteral("FILE")},
        {QStringLiteral("type"), QStringLiteral("Content type of that file."), QStringLiteral("TYPE"),
            QStringLiteral("application/octet-stream")},
        {QStringLiteral("connect-timeout"), QStringLiteral("Seconds until there must be a connection (30)."),
            QStringLiteral("SECONDS")},
        {{QStringLiteral("m"), QStringLiteral("max-time")}, QStringLiteral("Seconds for all of it."),
            QStringLiteral("SECONDS")},
        {QStringLiteral("retry"),
            QStringLiteral("Further attempts, 1, 2, 4 ... seconds later, where one may help."),
            QStringLiteral("COUNT")},
    });
    addTlsOptions(parser);
}

// False with a message when an option is no number.
bool readTimes(const QCommandLineParser& parser, HttpTimeLimits* limits, int* retries)
{
    limits->nConnect = millisecondsOf(parser, "connect-timeout", kConnectMs);
    limits->nRequest = millisecondsOf(parser, "max-time", 0);
    *retries = numberOf(parser, "retry", 0, 0, kMostRetries);
    return limits->nConnect >= 0 && limits->nRequest >= 0 && *retries >= 0;
}

// The method and the body that the options name; a code to end with when they cannot be had.
std::optional<int> readBody(const QCommandLineParser& parser, QString* method, QByteArray* body)
{
    QString name;
    for (const char* option : {"post", "put", "form"}) {
        if (!parser.isSet(QLatin1String(option)))
            continue;
        if (!name.isNull()) {
            Output::complain(QStringLiteral("get takes one of --post, --put and --form"));
            return Exit::kUsage;
        }
        *method = QString::fromLatin1(option).toUpper();
        name = parser.value(QLatin1String(option));
    }
    if (*method == QLatin1String("GET"))
        return std::nullopt;
    QString problem;
    if (readInput(name, kLargestBody, body, &problem))
        return std::nullopt;
    Output::complain(problem);
    return Exit::kRead;
}
} // namespace

int runGet(const QStringList& arguments)
{
    QCommandLineParser parser;
    addOptions(parser);
    if (const auto code = readOptions(parser, "get", arguments, {1, 1, "one URL"}))
        return *code;
    Target target;
    QString problem;
    if (!Target::parse(parser.positionalArguments().first(), Target::eHttp, &target, &problem)) {
        Output::complain(problem);
        return Exit::kUsage;
    }
    if (!checkTlsOptions(parser))
        return Exit::kRead;
    applyTlsOptions(parser, &target);
    HttpTimeLimits limits;
    int retries = 0;
    if (!readTimes(parser, &limits, &retries))
        return Exit::kUsage;
    QString method = QStringLiteral("GET");
    QByteArray body;
    if (const auto code = readBody(parser, &method, &body))
        return *code;
    GetCommand command(target, parser.isSet(QStringLiteral("include")));
    command.setTimes(limits, retries);
    const QString type = parser.value(QStringLiteral("type"));
    if (parser.isSet(QStringLiteral("form")))
        command.sendForm(parser.value(QStringLiteral("form")), body, type);
    else
        command.send(method, body, method == QLatin1String("GET") ? QString() : type);
    return QCoreApplication::exec();
}
