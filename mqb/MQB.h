// MQB.h: one channel to the devices of the process-wide device table.
//
// An MQB object is a driver-named channel with its own selected device and its
// own completion queue. It is used by one thread at a time; the device state
// behind it is safe for several threads, so two MQB objects (two test threads)
// may drive the same device at once.
#pragma once
#include <memory>
#include <string>
#include "DeviceInfo.h"
#include "MQBExport.h"

// Command record offsets the library reads from and writes to. The record is the
// 112-byte, packed, little-endian layout the extension fills (see CDBStruct).
namespace mqbrec {
constexpr int kRecLen   = 0;   // uint32, 112
constexpr int kOne      = 4;   // uint16, 1
constexpr int kCdbLen   = 6;   // uint8
constexpr int kWriteLen = 8;   // uint64
constexpr int kReadLen  = 16;  // uint64
constexpr int kCdb      = 24;  // 16 bytes
constexpr int kWriteBuf = 56;  // pointer
constexpr int kReadBuf  = 72;  // pointer
constexpr int kTag      = 92;  // uint32
constexpr int kSize     = 112;
}  // namespace mqbrec

// ioctl codes understood by MQB::ioctl.
enum MQBIoctl {
    MQB_IOCTL_QUEUEING   = 104,  // (int* enable, int* arg): tagged queueing on (1) / off (0)
    MQB_IOCTL_MAX_DEPTH  = 106,  // (int* depth): largest number of commands outstanding
    MQB_IOCTL_DATA_MODE  = 118,  // (int* mode, int* arg, unsigned char* flag): a
                                 //   MQBDataMode. MQB_DATA_KEYED gives 1 (set, no
                                 //   lost-write journal) the one time the journal
                                 //   cannot be allocated, and MQB_ERR_NO_MEMORY
                                 //   when its tracker cannot be allocated.
    MQB_IOCTL_FAST_READS = 119,  // (unsigned char* v): 0 on, 1 off
    MQB_IOCTL_CLONE      = 131,  // (MQB** out): a new object, same driver and device
};

// Data modes of MQB_IOCTL_DATA_MODE.
enum MQBDataMode {
    MQB_DATA_OFF      = 0,   // the caller's data as it is
    MQB_DATA_GENERATE = 3,   // hardware generation of write data
    MQB_DATA_KEYED    = 6,   // hardware compare with keyed LBAs
    MQB_DATA_REPEAT   = 11,  // repeat of user data
};

// receiveInfo / errInfo codes.
enum MQBInfo {
    MQB_INFO_SENSE = 100,  // errInfo(100, 3, unsigned char* buf, int* size, int* length)
    MQB_INFO_TAG   = 200,  // receiveInfo(200, 1, int* tag)
    MQB_INFO_CDB   = 203,  // receiveInfo(203, 2, unsigned char* cdb, int* length)
};

class MQB_API MQB {
public:
    // A channel of driver type `driver` (the text infoString puts before ':'),
    // with no device selected.
    explicit MQB(const std::string& driver);
    ~MQB();
    MQB(const MQB&) = delete;
    MQB& operator=(const MQB&) = delete;

    // --- The calls the extension makes ---
    bool isLocked(int deviceIdx);                 // true when the device may not be used
    int  ioctl(int code, int count, ...);         // 0 or a negative status
    int  infoString(char* buf, int size);         // "<driver>:..." ; returns its length
    int  setDeviceIndex(int deviceIdx);           // 0 or a negative status
    void setLoggingLevel(int level);
    int  getDeviceInfo(DeviceInfo* info);         // 0, or a status (info zeroed)
    int  getCurrentDeviceIndex();                 // -1 when none is selected
    int  deviceCount();                           // devices in the table
    // Queues the command in `record` (layout in mqbrec). 0 = accepted, a
    // completion will follow; otherwise a status (-16: sense through errInfo).
    int  send(unsigned char* record);
    // Takes the next completion of this channel (in the order the device
    // finished them, waiting for the device when none has) and returns its
    // status. With nothing outstanding it returns
    // MQB_ERR_NOTHING_OUT at once.
    int  receive();
    int  receiveInfo(int code, int count, ...);   // about the last completion
    int  errInfo(int code, int count, ...);       // sense of the last failure

    // --- Host-side controls (not used by the extension) ---
    const std::string& driver() const;
    void setDriver(const std::string& driver);
    void setCloneAllowed(bool allowed);           // false: ioctl 131 fails
    bool cloneAllowed() const;
    int  outstanding() const;                     // commands sent, not yet received
    // Hands every command sent since the last receive to its device now
    // (receive does this by itself). Returns 0.
    int  commit();

    struct Impl;
private:
    std::unique_ptr<Impl> impl_;
};

// Creates a channel of driver type `name`; null for an empty or null name.
MQB_API MQB* createMQB(const char* name, int, int, int);
// Destroys a channel made by createMQB or the clone ioctl; commands still in
// flight are completed and dropped first.
MQB_API void deleteMQB(MQB* mqb);
