#ifndef PELLIX_TESTS_FAKESERVER_H
#define PELLIX_TESTS_FAKESERVER_H

#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QList>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class QEventLoop;
class QObject;
class QTcpServer;
class QTcpSocket;

// A scripted server for the cases a correct server never produces: it listens on
// 127.0.0.1 (port 0) on its own thread, records every frame it receives, and answers only
// what the test tells it to: frames, split frames, delayed frames, malformed bytes, silence,
// or a closed socket.
//
// The constructor returns once the server listens. Every method may be called from the
// test's thread or from inside the responder (which runs on the server's thread).
// Clients are numbered from 0 in connection order; -1 means the most recent one (from the
// test's thread it waits for the first client to be accepted; after opening a further
// client, call waitForConnections() before addressing it as -1).
//
// State shared with the test thread is guarded by std::mutex, so ThreadSanitizer sees every
// hand-off.
class FakeServer
{
public:
    // Called on the server's thread for every complete frame a client sends.
    using Responder = std::function<void(FakeServer& server, int client, const QByteArray& frame)>;

    // Not copyable: it owns its thread and mutex.
    FakeServer();
    ~FakeServer();

    // A target memory for responders: the byte at address a is a * 7 + 3 (mod 256), so a byte
    // delivered to the wrong place shows.
    static QByteArray memoryBytes(quint32 address, int count);
    // A responder that answers single and block reads from memoryBytes(), one frame each, and
    // acknowledges writes.
    static void memoryResponder(FakeServer& server, int client, const QByteArray& frame);

    quint16 port() const { return listenPort; }

    // Replaces the responder (never empty; until set, frames are only recorded).
    void setResponder(Responder responder);

    // Writes bytes to a client now, or after delayMs.
    void send(const QByteArray& bytes, int client = -1) { sendLater(bytes, 0, client); }
    void sendLater(const QByteArray& bytes, int delayMs, int client = -1);
    // Closes a client's socket (the peer sees the connection closed).
    void closeClient(int client = -1);

    bool waitForConnections(int count, int timeoutMs = 5000) const;

    // Frames received from all clients, in arrival order.
    QList<QByteArray> frames() const;
    bool waitForFrames(int count, int timeoutMs = 5000) const;
    // Forgets what was received so far.
    void clearReceived();

private:
    void run();
    void post(std::function<void()> command);
    void accept(QTcpServer& server);
    void readClient(int client, QTcpSocket* socket, PXParser& parser);
    // Runs `action` on the server's thread with the client's socket, if it has one (-1: the
    // most recent client).
    void withSocket(int client, std::function<void(QTcpSocket*)> action);

    // The server's thread: a std::thread running a QEventLoop (joined, unlike a QThread, so
    // ThreadSanitizer sees its end).
    std::thread thread;
    QEventLoop* loop = nullptr; // server thread only
    quint16 listenPort = 0;
    QObject* context = nullptr;       // set while the server runs (the constructor waits for it)
    std::vector<QTcpSocket*> sockets; // server thread only

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::function<void()>> commands;
    Responder responder = [](FakeServer&, int, const QByteArray&) {}; // none: frames unanswered
    int clients = 0;
    QList<QByteArray> allFrames;
};

#endif
