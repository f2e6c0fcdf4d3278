// MQBExport.h: MQB_API marks what libMQB.so exports to the extension and the host.
// The library is compiled with hidden visibility, so anything not marked stays
// inside it.
#pragma once
#define MQB_API __attribute__((visibility("default")))
