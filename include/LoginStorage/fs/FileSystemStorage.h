// FileSystemStorage: raw records kept as one file per key in one folder.
//
// On disk: the file named folder + key holds exactly the record's bytes, with
// no header, length or expiry; other programs may read and prepare such
// folders. The key is used as the file name byte for byte, with no escaping,
// so a key with a "/" names a file in a sub-folder (reachable by key, but not
// listed by the iteration nor removed by delAll()), and "", "." and ".." name
// the folder itself or its parent, which no write replaces. isPlainKey() tells
// which keys name a plain file in the folder; callers that take keys from
// outside should check it.
//
// Every entry of the folder other than "." and ".." counts as a record for
// the iteration and delAll(), hidden files included; an entry that cannot be
// read as a record (a sub-folder, a FIFO) is skipped by the iteration.
//
// A record is replaced atomically: readers in other processes see the old or
// the new bytes, never a mixture. The new bytes reach the record's name
// through a short-lived hidden file ".lstmp-<pid>-<n>"; such names are the
// store's own: never records, and refused as keys. A writer killed before its
// rename leaves its file behind; the next iteration or delAll() removes those
// of processes that no longer exist. A replaced record keeps its file's
// permission bits and, where the process may, its owner and group. Whether a
// write, a removal and a new folder also survive a power cut is
// setDurableWrites() (platform/Durability.h). The store keeps no expiry and no
// count, and takes no lock: several objects and processes may share a folder,
// and nothing coordinates them.
//
// One thread at a time per object.
#ifndef LOGINSTORAGE_FS_FILESYSTEMSTORAGE_H
#define LOGINSTORAGE_FS_FILESYSTEMSTORAGE_H

#include <string>

#include "../storage/AbstractStorage.h"
#include "../storage/Export.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT FileSystemStorage : public AbstractStorage {
 public:
  // Keeps records in folder ("" means the working directory), creating it,
  // with missing parents, owner-only if it does not exist. A folder that
  // cannot be created is reported in the trace only: the object exists all
  // the same and its operations then fail.
  // With deleteAfterSet, every successful setRaw() deletes the record again
  // right after writing it (and returns the result of that del()).
  // ignored1, ignored2 and ignored3 are not used; they keep the constructor's
  // signature that existing callers are built against.
  FileSystemStorage(const std::string& folder, unsigned ignored1, bool ignored2,
                    bool deleteAfterSet, unsigned ignored3);
  FileSystemStorage(const FileSystemStorage&) = delete;
  FileSystemStorage& operator=(const FileSystemStorage&) = delete;

  // True when key names a plain file directly inside the folder: not empty,
  // not "." or "..", without "/" and without a NUL byte. It changes no
  // operation: other keys still name their paths byte for byte.
  static bool isPlainKey(const std::string& key);

  // Reads the record's file under the record buffer convention
  // (AbstractStorage.h). False with len 0 when the file is missing, is not a
  // regular file, cannot be read or holds 4 GiB or more; false with len set
  // to the file's size when that exceeds the capacity.
  bool getRaw(const std::string& key, char*& data, unsigned& len) const override;

  // Writes len bytes from data as the record's file, replacing any old one.
  // False, with no file touched, when len is 0 or data is null or key has the
  // temporary files' form; false, with the old record kept, when the file
  // cannot be written (full disk, file-size limit). expiration is ignored:
  // records never expire.
  bool setRaw(const std::string& key, const char* data, unsigned len, unsigned expiration) override;

  // Removes the record's file; true when it was removed. Never removes a
  // folder.
  bool del(const std::string& key) override;

  // Removes every record listed in the folder, trying each even after a
  // failure; true when all were removed (also when there were none), false
  // also when the listing failed part-way. Also removes the temporary files of
  // writers that were killed.
  bool delAll() override;

  // Opens the iteration: a live listing of the folder, so records added or
  // removed meanwhile may or may not be seen. False when an iteration is
  // already open (it goes on undisturbed) or the folder cannot be listed.
  bool startGetAll() override;

  // Closes the iteration, if one is open.
  void endGetAll() override;

  // Ends an open iteration; records stay on disk.
  ~FileSystemStorage() override;

  // Always 0: the store does not count its files.
  unsigned getNumElements() const override;

  // True when the record's file exists as a regular file.
  bool isInStorage(const std::string& key) const override;

  // The next entry of the listing, read with getRaw() under its name (key is
  // set even when the read fails); at the end, true with endReached and len 0.
  // A listing that fails ends the same way, with a trace message.
  bool getNextInternal(std::string& key, char*& data, unsigned& len, bool& endReached) override;

 private:
  std::string m_folder;  // always ends in "/"; a record's path is m_folder + key
  void* m_dirHandle;     // the open iteration's listing, or null
  bool m_deleteAfterSet;
};

}  // namespace VelLogin

#endif
