// MQBManager.h: what the host hands the extension: the current MQB object, the
// user data buffers and the send/receive buffer indexes.
#pragma once
#include <memory>
#include <vector>
#include "MQB.h"

class MQB_API MQBManager {
public:
    MQBManager();
    ~MQBManager();

    // The current channel, or null when none is loaded.
    MQB* getCurrentMQB();
    // Replaces (and destroys) the current channel; null closes it.
    void setCurrentMQB(std::unique_ptr<MQB> mqb);

    int  getSendBufferIndex();
    int  getRecvBufferIndex();
    void setSendBufferIndex(int idx);
    void setRecvBufferIndex(int idx);

    unsigned int getBufferCount();
    // 0 with `size` filled, or a negative status for an unknown index.
    int getBufferSize(unsigned int idx, unsigned long& size);
    // The buffer's bytes, or null for an unknown index.
    unsigned char* getBufferDataPtr(unsigned int idx);
    // Adds a user data buffer of `size` bytes filled with `fill`; returns its
    // index, or a negative status when it cannot be allocated.
    int addBuffer(unsigned long size, unsigned char fill);

private:
    std::unique_ptr<MQB> current_;
    std::vector<std::vector<unsigned char>> buffers_;
    int sendIdx_ = 0;
    int recvIdx_ = 0;
};
