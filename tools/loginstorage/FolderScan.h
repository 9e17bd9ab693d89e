// One pass over a storage folder's entries that tells records from the folder
// store's temporary files, reading no record.
//
// Records are what the store delivers: regular files, symbolic links
// followed (the store reads a link to a regular file as a record). Folders,
// FIFOs, sockets, devices and dangling links are not records and are left
// out, as are the temporary files of writes in progress or of writers that
// are gone (the store's own naming rule decides which names those are).
#ifndef LOGINSTORAGE_TOOLS_FOLDERSCAN_H
#define LOGINSTORAGE_TOOLS_FOLDERSCAN_H

#include <sys/stat.h>

#include <string>
#include <vector>

namespace tool {

class Progress;

class FolderScan {
 public:
  struct Entry {
    std::string name;
    struct stat info;  // of the file (links followed); zero unless stat was asked for
  };

  // Lists folder. With withStat, every record is stat'ed (its size,
  // permissions, owner and time); without, a stat is made only where the
  // listing cannot tell a regular file by itself. Records come sorted by
  // name. False with the system's reason in error when the folder or an
  // entry cannot be examined.
  bool scan(const std::string& folder, bool withStat, Progress* progress, std::string& error);

  const std::vector<Entry>& records() const { return m_records; }
  // Temporary files whose writer no longer exists: never renamed, safe to
  // remove. Always stat'ed (not following links).
  const std::vector<Entry>& abandoned() const { return m_abandoned; }
  // Temporary files of writers that are still running.
  unsigned long inProgress() const { return m_inProgress; }

  // Removes the abandoned temporary files that are still abandoned regular
  // files now; counts what it removed. False with the reason at the first
  // failure (the others are still tried).
  bool removeAbandoned(const std::string& folder, Progress* progress, unsigned long& removed,
                       unsigned long long& bytes, std::string& error) const;

 private:
  std::vector<Entry> m_records;
  std::vector<Entry> m_abandoned;
  unsigned long m_inProgress = 0;
};

}  // namespace tool

#endif
