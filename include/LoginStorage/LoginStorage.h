// LoginStorage: small records under string keys, kept in process memory, as
// one file per key in a folder, or in an in-memory cache in front of another
// store. Include this header for the whole public interface.
//
//   using namespace VelLogin;
//   // Objects on disk, with hot reads served from memory for 60 seconds:
//   CacheStorage sessions(
//       new ObjectStorage(new FileSystemStorage("/var/lib/app/sessions", 0, false, false, 0),
//                         Session::fromBytes),
//       60, 1000);
//   sessions.set(RefCountPtr<IStorable>(new Session("alice", "token")), 0);
//   RefCountPtr<IStorable> alice = sessions.get("alice", nullptr);
//
// Each store takes ownership of the store it wraps. One thread at a time per
// store object.
#ifndef LOGINSTORAGE_LOGINSTORAGE_H
#define LOGINSTORAGE_LOGINSTORAGE_H

#include "cache/CacheStorage.h"
#include "fs/FileSystemStorage.h"
#include "mem/MemStorage.h"
#include "object/ObjectStorage.h"
#include "platform/DebugSettings.h"
#include "platform/Durability.h"
#include "platform/TraceHandler.h"
#include "storage/AbstractObjectStorage.h"
#include "storage/AbstractStorage.h"
#include "storage/Exception.h"
#include "storage/IStorable.h"
#include "storage/RefCountPtr.h"

#endif
