// A thin owner of one POSIX mutex.
#pragma once

#include <pthread.h>

/// Owns one pthread_mutex_t. The object is exactly a virtual-table pointer and the mutex.
///
/// Results of lock(), unlock(), P() and V() are the pthread result codes (0 on success).
/// The debug level of setDebug() is one value shared by all Mutex objects (the object has no
/// field for it); nothing in the library reads it yet.
class Mutex {
  public:
    /// Attributes for Mutex(const Attr&).
    class Attr {
      public:
        /// pthread_mutexattr_init, then setType(type) (e.g. PTHREAD_MUTEX_RECURSIVE).
        explicit Attr(int type);
        ~Attr();
        Attr(const Attr&) = delete;
        Attr& operator=(const Attr&) = delete;
        /// pthread_mutexattr_settype; returns its result.
        int setType(int type);

        pthread_mutexattr_t attr;
    };

    /// pthread_mutex_init with default attributes.
    Mutex();
    explicit Mutex(const Attr& attributes);
    /// A POSIX mutex cannot be copied: the copy is a new, unlocked mutex with default attributes.
    Mutex(const Mutex&);
    Mutex& operator=(const Mutex&) = delete;
    /// pthread_mutex_destroy; nothing else.
    virtual ~Mutex();

    int lock();
    int unlock();
    /// True if the mutex was free and is now locked by the caller.
    bool trylock();
    /// Semaphore-style names: P() locks, V() unlocks, tryP() is trylock().
    int P();
    int V();
    bool tryP();

    pthread_mutex_t& getMutex() { return mutex; }
    const pthread_mutex_t& getMutex() const { return mutex; }

    static void setDebug(unsigned int level);
    static unsigned int getDebug();

  private:
    pthread_mutex_t mutex;
};
