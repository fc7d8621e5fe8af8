// Owners for what Python counts and locks, on the limited interface of CPython 3.9 and later.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <mutex>
#include <utility>

namespace kp::python {

// A reference to an object, or null while an exception is set.
class Ref {
  public:
    Ref() = default;
    explicit Ref(PyObject *owned) : object_(owned)
    {
    }
    Ref(Ref &&other) noexcept : object_(std::exchange(other.object_, nullptr))
    {
    }
    Ref &operator=(Ref &&other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    Ref(const Ref &) = delete;
    Ref &operator=(const Ref &) = delete;
    ~Ref()
    {
        Py_XDECREF(object_);
    }

    explicit operator bool() const
    {
        return object_ != nullptr;
    }
    PyObject *get() const
    {
        return object_;
    }
    PyObject *release()
    {
        return std::exchange(object_, nullptr);
    }

  private:
    PyObject *object_ = nullptr;
};

inline PyObject *counted(PyObject *object)
{
    Py_INCREF(object);
    return object;
}

// Lets other threads run Python over a scope, in which this one must touch no object.
class WithoutInterpreter {
  public:
    WithoutInterpreter() : state_(PyEval_SaveThread())
    {
    }
    WithoutInterpreter(const WithoutInterpreter &) = delete;
    WithoutInterpreter &operator=(const WithoutInterpreter &) = delete;
    ~WithoutInterpreter()
    {
        PyEval_RestoreThread(state_);
    }

  private:
    PyThreadState *state_;
};

// Takes a mutex. Lets others run Python while it waits, so that the holder can come to an end.
inline std::unique_lock<std::mutex> locked(std::mutex &mutex)
{
    std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
    if (!lock.owns_lock()) {
        const WithoutInterpreter waiting;
        lock.lock();
    }
    return lock;
}

// Frees an object of a heap type, which counts its type too.
inline void free_object(PyObject *self)
{
    PyTypeObject *type = Py_TYPE(self);
    const auto release = reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free));
    release(self);
    Py_DECREF(reinterpret_cast<PyObject *>(type));
}

// Makes the type and adds it to the module. Null with an exception.
inline PyTypeObject *add_type(PyObject *module, const char *name, PyType_Spec &spec)
{
    Ref type(PyType_FromSpec(&spec));
    if (!type || PyModule_AddObject(module, name, counted(type.get())) != 0)
        return nullptr;
    return reinterpret_cast<PyTypeObject *>(type.release());
}

template <typename Function> void *slot(Function *function)
{
    return reinterpret_cast<void *>(function);
}

} // namespace kp::python
