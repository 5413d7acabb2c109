#pragma once
// A QThread whose body is any callable. Give it the callable before start(): an empty
// function raises std::bad_function_call on the new thread.

#include <QThread>
#include <functional>
#include <utility>

class QThreadC : public QThread {
    Q_OBJECT
public:
    explicit QThreadC(std::function<void()> body = {}, QObject* parent = nullptr)
        : QThread(parent), m_body(std::move(body))
    {
    }
    ~QThreadC() override;

    void setBody(std::function<void()> body) { m_body = std::move(body); }

protected:
    void run() override;

private:
    std::function<void()> m_body;
};
