// Collects the formatted lines the application logs while it is alive.
#pragma once

#include <QStringList>
#include <memory>

class HMLogCapture
{
public:
    HMLogCapture();
    ~HMLogCapture();
    HMLogCapture(const HMLogCapture &) = delete;
    HMLogCapture &operator=(const HMLogCapture &) = delete;

    QStringList lines() const;
    bool contains(const QString &text) const;
    void clear();

private:
    struct Sink;
    std::shared_ptr<Sink> m_sink;
};
