#include "FakeServer.h"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QAbstractSocket>
#include <QCoreApplication>
#include <QEventLoop>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <chrono>
#include <utility>

namespace {

// Runs the queued commands on the server's thread when a posted event reaches it. A posted
// event instead of a queued functor call: the functor's slot object is released through a
// reference count inside QtCore, which ThreadSanitizer cannot see.
class CommandContext : public QObject
{
public:
    explicit CommandContext(std::function<void()> drain) : drainCommands(std::move(drain)) {}

protected:
    void customEvent(QEvent*) override { drainCommands(); }

private:
    std::function<void()> drainCommands;
};

} // namespace

FakeServer::FakeServer()
{
    thread = std::thread([this] { run(); });
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return context != nullptr; });
}

FakeServer::~FakeServer()
{
    post([this] { loop->quit(); });
    thread.join();
}

void FakeServer::run()
{
    // First: it gives this thread its event dispatcher, which the server's socket notifier
    // and the posted commands need.
    QEventLoop localLoop;
    loop = &localLoop;
    CommandContext localContext([this] {
        std::unique_lock<std::mutex> lock(mutex);
        const auto pending = std::exchange(commands, {});
        lock.unlock();
        for (const auto& command : pending)
            command();
    });
    QTcpServer localServer;
    localServer.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&localServer, &QTcpServer::newConnection, &localContext,
                     [this, &localServer] { accept(localServer); });
    {
        std::lock_guard<std::mutex> lock(mutex);
        context = &localContext;
        listenPort = localServer.serverPort();
    }
    changed.notify_all();

    localLoop.exec();

    std::lock_guard<std::mutex> lock(mutex);
    context = nullptr;
    commands.clear();
    // The sockets are children of the server and go with it, their parsers with their
    // connections.
}

void FakeServer::post(std::function<void()> command)
{
    if (std::this_thread::get_id() == thread.get_id())
        return command();
    // The event is posted while the mutex is held: the server thread takes the mutex before
    // it reads the commands, so everything postEvent did inside QtCore (where ThreadSanitizer
    // cannot see Qt's own lock) happens before the server thread handles the command, also
    // its last one, after which the thread tears its event queue down.
    std::lock_guard<std::mutex> lock(mutex);
    commands.push_back(std::move(command));
    if (context)
        QCoreApplication::postEvent(context, new QEvent(QEvent::User));
}

void FakeServer::withSocket(int client, std::function<void(QTcpSocket*)> action)
{
    if (client < 0) {
        std::unique_lock<std::mutex> lock(mutex);
        // A client's connect can complete before this thread has accepted it: from the test's
        // thread, "the most recent client" waits for the first one to be taken.
        if (std::this_thread::get_id() != thread.get_id())
            changed.wait_for(lock, std::chrono::seconds(5), [this] { return clients > 0; });
        client = clients - 1;
    }
    post([this, client, action] {
        if (client >= 0 && client < int(sockets.size()))
            action(sockets[size_t(client)]);
    });
}

void FakeServer::accept(QTcpServer& server)
{
    while (QTcpSocket* socket = server.nextPendingConnection()) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        auto parser = std::make_shared<PXParser>(PXParser::ServerFrames);
        QObject::connect(socket, &QTcpSocket::readyRead, context,
                         [this, socket, parser, index = int(sockets.size())] {
                             readClient(index, socket, *parser);
                         });
        sockets.push_back(socket);
        std::lock_guard<std::mutex> lock(mutex);
        clients = int(sockets.size());
        changed.notify_all();
    }
}

void FakeServer::readClient(int client, QTcpSocket* socket, PXParser& parser)
{
    parser.feedData(socket->readAll());
    QList<QByteArray> cut;
    Responder current;
    {
        // The record gets copies of its own: an array shared with this thread's temporaries
        // would be freed by the test's thread through reference counts that Qt's own,
        // uninstrumented code drops, which ThreadSanitizer cannot pair up.
        std::lock_guard<std::mutex> lock(mutex);
        for (QByteArray frame; !(frame = parser.getPacket(false)).isEmpty(); cut.append(frame))
            allFrames.append(QByteArray(frame.constData(), frame.size()));
        current = responder;
    }
    changed.notify_all();
    for (const QByteArray& frame : cut)
        current(*this, client, frame);
}

void FakeServer::setResponder(Responder newResponder)
{
    std::lock_guard<std::mutex> lock(mutex);
    responder = std::move(newResponder);
}

void FakeServer::sendLater(const QByteArray& bytes, int delayMs, int client)
{
    withSocket(client, [bytes, delayMs](QTcpSocket* socket) {
        const auto write = [socket, bytes] {
            socket->write(bytes);
            socket->flush();
        };
        if (delayMs == 0)
            return write();
        QTimer::singleShot(delayMs, socket, write);
    });
}

void FakeServer::closeClient(int client)
{
    withSocket(client, [](QTcpSocket* socket) {
        socket->flush();
        socket->close();
    });
}

bool FakeServer::waitForConnections(int count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return clients >= count; });
}

QList<QByteArray> FakeServer::frames() const
{
    std::lock_guard<std::mutex> lock(mutex);
    QList<QByteArray> out; // deep copies: see readClient()
    for (const QByteArray& frame : allFrames)
        out.append(QByteArray(frame.constData(), frame.size()));
    return out;
}

bool FakeServer::waitForFrames(int count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return allFrames.size() >= count; });
}

void FakeServer::clearReceived()
{
    std::lock_guard<std::mutex> lock(mutex);
    allFrames.clear();
}

QByteArray FakeServer::memoryBytes(quint32 address, int count)
{
    QByteArray out(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        out[i] = char((address + quint32(i)) * 7 + 3);
    return out;
}

void FakeServer::memoryResponder(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const int flow = pxproto::flowId(frame);
    if (flow == pxproto::request::Read && p[4] >= pxproto::access::Write8)
        return server.send(pxproto::writeAck(), client);
    if (flow != pxproto::request::Read && flow != pxproto::request::BlockRead)
        return;
    const quint32 address = pxproto::getLe32(p + 5);
    const int count = flow == pxproto::request::BlockRead ? int(pxproto::getLe32(p + 9))
                                                          : 1 << (p[4] & 3); // 4: readi8
    server.send(pxproto::readData(address, memoryBytes(address, count).constData(), count), client);
}
