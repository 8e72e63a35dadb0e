#include "libqbproc/Mutex.h"

#include <atomic>

namespace {
// One debug level for every Mutex: the objects themselves hold nothing but the POSIX mutex.
std::atomic<unsigned int> debugLevel{0};
}  // namespace

Mutex::Attr::Attr(int type) {
    pthread_mutexattr_init(&attr);
    setType(type);
}

Mutex::Attr::~Attr() {
    pthread_mutexattr_destroy(&attr);
}

int Mutex::Attr::setType(int type) {
    return pthread_mutexattr_settype(&attr, type);
}

Mutex::Mutex() {
    pthread_mutex_init(&mutex, nullptr);
}

Mutex::Mutex(const Attr& attributes) {
    pthread_mutex_init(&mutex, &attributes.attr);
}

// The state of a POSIX mutex cannot be copied; the copy is a fresh mutex of its own.
Mutex::Mutex(const Mutex&) {
    pthread_mutex_init(&mutex, nullptr);
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex);
}

int Mutex::lock() {
    return pthread_mutex_lock(&mutex);
}

int Mutex::unlock() {
    return pthread_mutex_unlock(&mutex);
}

bool Mutex::trylock() {
    return pthread_mutex_trylock(&mutex) == 0;
}

int Mutex::P() {
    return lock();
}

int Mutex::V() {
    return unlock();
}

bool Mutex::tryP() {
    return trylock();
}

void Mutex::setDebug(unsigned int level) {
    debugLevel.store(level, std::memory_order_relaxed);
}

unsigned int Mutex::getDebug() {
    return debugLevel.load(std::memory_order_relaxed);
}
