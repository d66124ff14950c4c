#ifndef PZ_TESTS_SUPPORT_GUARDFILES_H
#define PZ_TESTS_SUPPORT_GUARDFILES_H

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

#include "support/TempDir.h"
#include "support/Uncopyable.h"

// What a file guard leaves in the system, looked at and cleared away without the guard.

namespace pztest {

/// The shared-memory segment of a key file, as any other program finds it.
class GuardSegment : private Uncopyable {
public:
    explicit GuardSegment(const std::string& keyFile) : id_(-1), content_(nullptr) {
        const key_t key = ftok(keyFile.c_str(), 1);
        if (key == -1) return;
        id_ = shmget(key, 0, 0);
        if (id_ == -1) return;
        void* const address = shmat(id_, nullptr, 0);
        if (address != reinterpret_cast<void*>(-1)) content_ = static_cast<unsigned char*>(address);
    }
    ~GuardSegment() {
        if (content_ != nullptr) shmdt(content_);
    }

    /// -1 when there is none.
    int Id() const { return id_; }

    bool Exists() const { return content_ != nullptr; }

    size_t Size() const { return Status().shm_segsz; }
    unsigned int Mode() const { return Status().shm_perm.mode & 0777U; }

    /// How often it is attached, this object not counted.
    int Attached() const { return static_cast<int>(Status().shm_nattch) - 1; }

    /// True once it is marked for removal.
    bool IsRemoved() const {
        return (Status().shm_perm.mode & static_cast<unsigned>(SHM_DEST)) != 0;
    }

    /// The thread that holds the mutex of the segment, as the C library notes it; 0 when none does.
    pid_t MutexOwner() const {
        const auto* mutex = reinterpret_cast<const pthread_mutex_t*>(content_);
        return __atomic_load_n(&mutex->__data.__owner, __ATOMIC_ACQUIRE);
    }

    /// What stands in the word of the mutex that waiters sleep on: 0 free, 1 held, 2 waited for.
    int MutexWord() const {
        const auto* mutex = reinterpret_cast<const pthread_mutex_t*>(content_);
        return __atomic_load_n(&mutex->__data.__lock, __ATOMIC_ACQUIRE);
    }

    /// The mutex, for tests that write over it.
    pthread_mutex_t* Mutex() { return reinterpret_cast<pthread_mutex_t*>(content_); }

    unsigned char Byte() const { return __atomic_load_n(content_, __ATOMIC_ACQUIRE); }
    void SetByte(unsigned char value) { __atomic_store_n(content_, value, __ATOMIC_RELEASE); }

private:
    shmid_ds Status() const {
        shmid_ds status = {};
        shmctl(id_, IPC_STAT, &status);
        return status;
    }

    int id_;
    unsigned char* content_;
};

/// Makes an empty file whose key no segment has. Keys come from the numbers of files, which are
/// used again, while the segments of a program that was killed stay.
inline void make_key_file(const std::string& path) {
    const TempDir rejected;  // keep their numbers until the end
    for (int i = 0;; ++i) {
        write_file(path, "");
        if (shmget(ftok(path.c_str(), 1), 0, 0) == -1) return;
        std::filesystem::rename(path, rejected.File(std::to_string(i)));
    }
}

/// The place of one guard: a directory and a file name. Removes key files and segments at the end.
class GuardFiles : private Uncopyable {
public:
    /// A fresh folder.
    explicit GuardFiles(std::string name = "data")
        : dir_(temp_.Path() + "/"), name_(std::move(name)) {}

    /// A directory that exists, ending with '/'.
    GuardFiles(std::string dir, std::string name) : dir_(std::move(dir)), name_(std::move(name)) {}

    ~GuardFiles() {
        for (const std::string& file : {MutexFile(), FlagFile()}) {
            const key_t key = ftok(file.c_str(), 1);
            const int id = key != -1 ? shmget(key, 0, 0) : -1;
            if (id != -1) shmctl(id, IPC_RMID, nullptr);
            ::unlink(file.c_str());
        }
    }

    const std::string& Dir() const { return dir_; }
    const std::string& Name() const { return name_; }
    std::string MutexFile() const { return dir_ + name_ + "_mutex"; }
    std::string FlagFile() const { return dir_ + name_ + "_initflag"; }

    /// Makes the key files, as an earlier run of a system side left them.
    void Make() const {
        write_file(MutexFile(), "");
        write_file(FlagFile(), "");
    }

private:
    const TempDir temp_;
    const std::string dir_;
    const std::string name_;
};

/// Permission bits of a file or directory; 0 when there is none.
inline unsigned int permissions_of(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0U;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_GUARDFILES_H
