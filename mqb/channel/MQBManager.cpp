// MQBManager.cpp: the host's hand-over to the extension: the current channel,
// the user data buffers and the send/receive buffer indexes.
#include "MQBManager.h"
#include <new>
#include <stdexcept>
#include "MQBErr.h"

MQBManager::MQBManager() = default;
MQBManager::~MQBManager() = default;

MQB* MQBManager::getCurrentMQB() { return current_.get(); }

void MQBManager::setCurrentMQB(std::unique_ptr<MQB> mqb) { current_ = std::move(mqb); }

int MQBManager::getSendBufferIndex() { return sendIdx_; }
int MQBManager::getRecvBufferIndex() { return recvIdx_; }
void MQBManager::setSendBufferIndex(int idx) { sendIdx_ = idx; }
void MQBManager::setRecvBufferIndex(int idx) { recvIdx_ = idx; }

unsigned int MQBManager::getBufferCount() { return unsigned(buffers_.size()); }

int MQBManager::getBufferSize(unsigned int idx, unsigned long& size) {
    if (idx >= buffers_.size()) return MQB_ERR_PARAM;
    size = buffers_[idx].size();
    return MQB_OK;
}

unsigned char* MQBManager::getBufferDataPtr(unsigned int idx) {
    if (idx >= buffers_.size()) return nullptr;
    return buffers_[idx].data();
}

int MQBManager::addBuffer(unsigned long size, unsigned char fill) {
    try {
        buffers_.emplace_back(size, fill);
    } catch (const std::bad_alloc&) {
        return MQB_ERR_NO_MEMORY;
    } catch (const std::length_error&) {
        return MQB_ERR_NO_MEMORY;
    }
    return int(buffers_.size()) - 1;
}
