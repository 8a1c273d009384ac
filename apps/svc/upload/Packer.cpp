#include "apps/svc/upload/Packer.h"

#include "apps/svc/FolderFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// Types whose content is compressed already: deflating them again costs
// time and gains nothing, so they are stored as they are.
char const* const kStoredExtensions[] = {
    "zip", "gz", "jpg", "jpeg", "png", "gif", "mp4", "7z", "xz", "bz2", "zst",
    "docx", "xlsx", "pptx", "odt", "ods",
};

// zlib's own default level. libzip's default, the best compression, packed
// 100 MiB of text five times slower (12.9 s against 2.5 s) for an archive
// only 6 % smaller.
constexpr zip_uint32_t kDeflateLevel = 6;

std::string extensionOf(std::string const& path) { return Settings::fixExtForSet(fs::path(path).extension().string()); }

bool storedAsIs(std::string const& path) {
  std::string const ext = extensionOf(path);
  for (char const* stored : kStoredExtensions) {
    if (ext == stored) return true;
  }
  return false;
}

// Settings::canZip for a file: "zip" and "enm" are never packed again. Its
// own check of whether the path is a folder would look the relative path up
// from the working directory; the files here are files of the job folder.
bool canZipFile(std::string const& path) { return Settings::INDIR_BAD_EXTS.count(extensionOf(path)) == 0; }

std::string quoted(std::string const& name) { return "\"" + name + "\""; }

// The first file that could not be read, shared by the sources of one
// archive: libzip reports only that a source failed.
struct ReadFailure {
  std::string path;
  std::string why;
};

// A libzip source that reads one file of the job folder. It opens the file
// only while libzip reads it, so a drop of many files never holds many
// descriptors, and it opens it below the job folder without following
// links.
class JobFileSource {
 public:
  JobFileSource(int jobDir, std::string path, ReadFailure& failure)
      : m_jobDir(jobDir), m_path(std::move(path)), m_failure(failure) {
    zip_error_init(&m_error);
  }
  ~JobFileSource() { zip_error_fini(&m_error); }
  JobFileSource(JobFileSource const&) = delete;
  JobFileSource& operator=(JobFileSource const&) = delete;

  static zip_int64_t callback(void* self, void* data, zip_uint64_t len, zip_source_cmd_t cmd) {
    return static_cast<JobFileSource*>(self)->handle(data, len, cmd);
  }

 private:
  zip_int64_t handle(void* data, zip_uint64_t len, zip_source_cmd_t cmd) {
    switch (cmd) {
      case ZIP_SOURCE_OPEN:
        return open();
      case ZIP_SOURCE_READ:
        return read(data, len);
      case ZIP_SOURCE_CLOSE:
        m_file = FileFd();
        return 0;
      case ZIP_SOURCE_STAT:
        return stat(data, len);
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&m_error, data, len);
      case ZIP_SOURCE_FREE:
        delete this;
        return 0;
      case ZIP_SOURCE_SUPPORTS:
        return ZIP_SOURCE_SUPPORTS_READABLE;
      default:
        zip_error_set(&m_error, ZIP_ER_OPNOTSUPP, 0);
        return -1;
    }
  }

  zip_int64_t fail(int err, std::string const& why) {
    if (m_failure.path.empty()) {
      m_failure.path = m_path;
      m_failure.why = why;
    }
    zip_error_set(&m_error, ZIP_ER_READ, err);
    return -1;
  }

  // The file, opened and checked to be a regular file.
  zip_int64_t openChecked(FileFd& file, struct stat& st) {
    try {
      file = openBelow(m_jobDir, m_path, O_RDONLY | O_NONBLOCK);
    } catch (std::system_error const& e) {
      return fail(e.code().value(), e.code().message());
    }
    if (::fstat(file.get(), &st) != 0) return fail(errno, std::strerror(errno));
    if (!S_ISREG(st.st_mode)) return fail(EINVAL, "not a regular file");
    return 0;
  }

  zip_int64_t open() {
    struct stat st {};
    return openChecked(m_file, st);
  }

  zip_int64_t read(void* data, zip_uint64_t len) {
    for (;;) {
      ssize_t const got = ::read(m_file.get(), data, static_cast<std::size_t>(std::min<zip_uint64_t>(len, 1 << 30)));
      if (got >= 0) return got;
      if (errno != EINTR) return fail(errno, std::strerror(errno));
    }
  }

  zip_int64_t stat(void* data, zip_uint64_t len) {
    zip_stat_t* const out = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, len, &m_error);
    if (!out) return -1;
    FileFd file;
    struct stat st {};
    if (openChecked(file, st) != 0) return -1;
    zip_stat_init(out);
    out->size = static_cast<zip_uint64_t>(st.st_size);
    out->mtime = st.st_mtime;
    out->valid |= ZIP_STAT_SIZE | ZIP_STAT_MTIME;
    return sizeof(zip_stat_t);
  }

  int const m_jobDir;
  std::string const m_path;
  ReadFailure& m_failure;
  zip_error_t m_error;
  FileFd m_file;
};

// An archive being written; discarded unless closed.
class ArchiveWriter {
 public:
  ArchiveWriter(std::string const& path, std::string const& name, std::function<void()> const& progress)
      : m_name(name), m_progress(progress) {
    int err = 0;
    m_zip = zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &err);
    if (!m_zip) {
      zip_error_t error;
      zip_error_init_with_code(&error, err);
      std::string const why = zip_error_strerror(&error);
      zip_error_fini(&error);
      throw std::runtime_error("cannot make the archive " + quoted(name) + ": " + why);
    }
    if (m_progress) {
      // Every thousandth of the way.
      zip_register_progress_callback_with_state(
          m_zip, 0.001, [](zip_t*, double, void* self) { static_cast<ArchiveWriter*>(self)->m_progress(); }, nullptr,
          this);
    }
  }
  ~ArchiveWriter() {
    if (m_zip) zip_discard(m_zip);
  }
  ArchiveWriter(ArchiveWriter const&) = delete;
  ArchiveWriter& operator=(ArchiveWriter const&) = delete;

  void add(int jobDir, std::string const& path) {
    auto* const state = new JobFileSource(jobDir, path, m_failure);
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* const source = zip_source_function_create(&JobFileSource::callback, state, &error);
    zip_error_fini(&error);
    if (!source) {
      delete state;
      throw std::runtime_error("cannot pack " + quoted(path) + ": " + zip_strerror(m_zip));
    }
    // Names are marked UTF-8 when they are; other bytes are kept as they are.
    zip_int64_t index = zip_file_add(m_zip, path.c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0) index = zip_file_add(m_zip, path.c_str(), source, ZIP_FL_ENC_GUESS);
    if (index < 0) {
      std::string const why = zip_strerror(m_zip);
      zip_source_free(source);
      throw std::runtime_error("cannot pack " + quoted(path) + ": " + why);
    }
    bool const stored = storedAsIs(path);
    if (zip_set_file_compression(m_zip, static_cast<zip_uint64_t>(index), stored ? ZIP_CM_STORE : ZIP_CM_DEFLATE,
                                 stored ? 0 : kDeflateLevel) != 0) {
      throw std::runtime_error("cannot pack " + quoted(path) + ": " + zip_strerror(m_zip));
    }
  }

  void close() {
    if (zip_close(m_zip) == 0) {
      m_zip = nullptr;
      return;
    }
    if (!m_failure.path.empty()) {
      throw std::runtime_error("cannot pack " + quoted(m_failure.path) + ": " + m_failure.why);
    }
    throw std::runtime_error("cannot write the archive " + quoted(m_name) + ": " + zip_strerror(m_zip));
  }

 private:
  std::string const m_name;
  std::function<void()> const m_progress;
  ReadFailure m_failure;
  zip_t* m_zip = nullptr;
};

void requireArchiveName(std::string const& archive) {
  if (archive.empty() || archive == "." || archive == ".." || archive.find('/') != std::string::npos) {
    throw std::runtime_error("cannot pack into " + quoted(archive) + ": not the name of an entry");
  }
}

}  // namespace

std::string archiveName(Settings const& settings, std::string const& jobId, std::string const& droppedName,
                        bool droppedFolder) {
  if (settings.UseDirName && droppedFolder && !droppedName.empty()) return droppedName + ".zip";
  return jobId + ".zip";
}

Packed pack(Settings const& /*settings*/, int jobDir, std::vector<std::string> const& files,
            std::string const& archive, std::function<void()> const& progress) {
  requireArchiveName(archive);
  Packed result;
  for (std::string const& file : files) (canZipFile(file) ? result.packed : result.apart).push_back(file);
  if (result.packed.empty()) return result;

  // What a crash left of an earlier try is begun again.
  std::string const partial = archive + "." + Settings::RESERVED_IGNORED_EXT;
  if (::unlinkat(jobDir, partial.c_str(), 0) != 0 && errno != ENOENT) {
    throw std::system_error(errno, std::generic_category(), "cannot remove the partial archive " + quoted(partial));
  }
  // libzip writes by path; the descriptor's entry in /proc is the job folder
  // itself, whatever its path is now.
  std::string const partialPath = "/proc/self/fd/" + std::to_string(jobDir) + "/" + partial;
  {
    ArchiveWriter writer(partialPath, partial, progress);
    try {
      for (std::string const& file : result.packed) writer.add(jobDir, file);
      writer.close();
    } catch (...) {
      ::unlinkat(jobDir, partial.c_str(), 0);
      throw;
    }
  }
  auto systemFailure = [&](std::string const& what) {
    int const err = errno;
    ::unlinkat(jobDir, partial.c_str(), 0);
    return std::system_error(err, std::generic_category(), what);
  };
  {
    FileFd const written(::openat(jobDir, partial.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!written.valid() || ::fsync(written.get()) != 0) throw systemFailure("cannot flush the archive " + quoted(partial));
  }
  // A whole archive of that name is never replaced: it may be a file of the
  // drop.
  if (::renameat2(jobDir, partial.c_str(), jobDir, archive.c_str(), RENAME_NOREPLACE) != 0) {
    throw systemFailure("cannot name the archive " + quoted(archive));
  }
  if (::fsync(jobDir) != 0) throw std::system_error(errno, std::generic_category(), "cannot flush the archive " + quoted(archive));
  result.archive = archive;
  return result;
}

}  // namespace qxsvc
