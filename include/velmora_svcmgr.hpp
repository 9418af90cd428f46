// SPDX-License-Identifier: Apache-2.0
#ifndef VELMORA_SVCMGR_HPP
#define VELMORA_SVCMGR_HPP

/**
 * @file
 * The C++ face of velmora_svcmgr.h: owners for its handles, requests with callables and time limits,
 * a session that lives through the agent's own restart, and work on models with one final word.
 *
 * C++17, header only, over the C interface alone: link with what the C interface needs, and with
 * -pthread. Works with -fno-exceptions and -fno-rtti.
 *
 *     namespace vs = velmora::svcmgr;
 *     vs::GlibLoop loop;                                    // from velmora_svcmgr_glib.hpp
 *     vs::Session session(loop);                            // connects by itself
 *     session.OnState([](vs::State state) { ... });
 *     vs::Token listing = session.Models([](vs::Outcome<vs::ModelList> models) {
 *       if (!models) return Complain(models.error());       // name, meaning, remedy
 *       for (const vs::Model& model : *models) std::cout << model.id() << '\n';
 *     }, 10s);
 *     vs::ModelWork work = session.Update({"vision.segment"},
 *         [](const vs::Progress& progress) { Draw(progress.total); },
 *         [](vs::Outcome<void> end) { ... });               // exactly once
 *
 * Rules
 *
 *  1. Threads. A session, its tokens and its works belong to the thread that runs the application's
 *     main loop, on which the session is made: every function is called there, and every callable
 *     runs there. Loop::Post alone may be called anywhere. Handles and values (Model, ModelList,
 *     Outcome, ...) may be moved to another thread, and are used by one thread at a time.
 *  2. Callables. Anything that can be called, also what can only be moved. Null stands for a
 *     callable that does nothing. No callable runs inside the function that it is handed to.
 *  3. Tokens. A callable runs only as long as its token, or work, lives. When that is released, what
 *     the callable holds is freed at once, or, where the callable itself releases it, as soon as it
 *     returns; the agent cannot be told to stop, and its answer is dropped. Detach() lets a request
 *     go on without a token. When the session is destroyed, callables are freed and never called.
 *  4. Callables may do all that the application may do elsewhere: make requests, release their own
 *     token or any other, connect, disconnect, destroy the session.
 *  5. Every request whose token is kept ends with exactly one call of its callable: with the answer,
 *     with the agent's or the library's error, with kConnectionLost, or with kTimedOut if it was given
 *     a time limit. An agent that holds the connection and stays silent can only be met by a limit.
 *  6. Exceptions. Nothing here throws, but for std::bad_alloc out of functions that the application
 *     calls, and for Outcome::value_or_throw, which is asked for by its name. An exception that
 *     leaves a callable is handed to Options::on_exception, which sees it as
 *     std::current_exception(); without one, std::terminate is called. What the agent's messages need
 *     of memory, the C interface allocates, which reports a lack of it as an error.
 *  7. One session in a process, because the C interface has one connection in a process. Shared
 *     objects that use this header see each other's session where the linker makes one of what is
 *     inline: not where they are loaded with RTLD_LOCAL and compiled by clang++ or with
 *     -fno-gnu-unique, nor where they were compiled with another layout of this header (the inline
 *     namespace). There, the application has to see to it. A second one
 *     is refused: its state is State::kRefused and whatever it is asked ends with kSessionExists. Do
 *     not call the functions of the C interface that connect, disconnect, set, unset, register or
 *     deregister beside a session; all others may be mixed with it.
 *  8. Forks. A session that a forked child inherits calls nothing of what the parent has asked for, and
 *     does not touch the connection; the child may make its own. Do not fork while another thread is
 *     inside the session (a call that blocks is just ending).
 *
 * What becomes of the traps of velmora_svcmgr.h
 *
 *  1. A loss or refusal that leaves no way out: told, as State::kLost or kRejected; requests end
 *     with an error. When the agent's launch is announced, the session is connected again by itself.
 *     The way out of a refused first attempt remains a new process.
 *  2. Disconnecting while connecting, or while the agent replaces itself: a connection that comes up
 *     afterwards is ended as soon as it is seen. If the session is destroyed at such a time, the
 *     connection may come up and stay; the next session takes it over.
 *  3. Replaced connection callbacks: does not matter, there is one callback for all sessions.
 *  4. Failures to connect that are not reported: Options::connect_limit. While the agent restarts,
 *     connecting is tried again, which helps after a reconnection that could not be started.
 *  5. A connection that is reported although connecting fails: ended; the state is kFailed.
 *  6. A refused subscription to the agent's announcements: not survived; a restart shows as a loss.
 *  7. Restarts that are not reported: found by looking, four times a second, as long as a request is
 *     under way or the session connects, and before each request. State::kRestarting tells. A restart
 *     that is over between two looks shows by silence: queries are sent again, and so is work, where
 *     WorkOptions::resend says so, that falls silent with the announcement for five seconds. Other
 *     work that says nothing for Options::restart_patience is lost, or sent again likewise.
 *  8. Losses that are reported all the same: taken for the restart that they are, if this session has
 *     asked for the update or has heard that it began.
 *  9. Losses that are hidden by an old announcement: found by looking; after Options::restart_patience
 *     they are kLost, and a return that is not reported is found by looking every two seconds.
 * 10. Connections that are not reported: found by looking.
 * 11. is_being_updated denies an update: as it is; see Session::IsBeingUpdated.
 * 12. Requests without a connection that are never answered: held until the connection stands, or
 *     ended with an error.
 * 13. Answers that come again: dropped. What the C interface gets as user data is a number, not an
 *     address; an answer to a request that is over finds nothing, and nothing is kept for it.
 * 14. The agent's results 2 and 10 look like success: as it is; the C interface hides them.
 * 15. A licence that is not there: Outcome has kNoLicense.
 * 16. One code for every failure of an update request: kNotTaken, if the connection stands.
 * 17. Unknown answers to a request with names: as it is; OnUpdateStatus tells what becomes of it.
 * 18. Requests inside the update status callback that are forgotten: made after it has returned.
 * 19. The search for a category that ends early: as it is.
 * 20. abort() in get_client_api_level: as it is.
 * 21. Refused subscriptions that look like success: as it is. Releasing all tokens for them, and
 *     subscribing anew, tries again.
 * 22. Subscriptions that the platform does not end: harmless, what comes finds no callable.
 * 23. Negative indices: never passed.
 * 24. Lists that cannot be released: stay allocated, as they would in C.
 * 25. Memory that stays allocated: as it is. Each text of a model is set once.
 */

#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#if defined(__GNUC__)
// One session in a process, also where several shared objects use this header.
#define VELMORA_SVCMGR_SHARED_ __attribute__((visibility("default")))
#else
#define VELMORA_SVCMGR_SHARED_
#endif

namespace velmora::svcmgr {
// Changes with the layout of what several shared objects may share.
inline namespace layout_1 {

/** Delays and time limits. */
using Milliseconds = std::chrono::milliseconds;
/** A time on a clock that goes forward only. */
using TimePoint = std::chrono::steady_clock::time_point;

/** No time limit. */
inline constexpr Milliseconds kNoLimit = Milliseconds::max();

// ---- Callables ----------------------------------------------------------------------------------

/**
 * Owns anything that can be called with these arguments, also what can only be moved; moved itself,
 * never copied. An empty one does nothing, and returns a default where the result has one.
 */
template <typename Signature>
class Callable;

/** Owns what can be called with these arguments; see above. */
template <typename Result, typename... Arguments>
class Callable<Result(Arguments...)> {
 public:
  Callable() noexcept = default;
  /** An empty one. */
  Callable(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

  /** Throws std::bad_alloc. An empty std::function, or a null pointer, makes an empty one. */
  template <typename F, typename = std::enable_if_t<
                            !std::is_same_v<std::decay_t<F>, Callable> &&
                            std::is_invocable_r_v<Result, std::decay_t<F>&, Arguments...>>>
  Callable(
      F&& function) {  // NOLINT(google-explicit-constructor,bugprone-forwarding-reference-overload)
    if (IsNull(function)) return;
    body_.reset(new Held<std::decay_t<F>>(std::forward<F>(function)));
  }

  /** Empty where memory is exhausted; throws nothing that moving `function` does not throw. */
  template <typename F>
  static Callable TryMake(F&& function) {
    Callable made;
    made.body_.reset(new (std::nothrow) Held<std::decay_t<F>>(std::forward<F>(function)));
    return made;
  }

  /** Whether there is something to call. */
  explicit operator bool() const noexcept { return body_ != nullptr; }

  /** Calls it; what it throws is passed on. */
  Result operator()(Arguments... arguments) {
    if (body_ == nullptr) return Nothing();
    return body_->Run(std::forward<Arguments>(arguments)...);
  }

 private:
  static Result Nothing() {
    if constexpr (std::is_void_v<Result> || std::is_default_constructible_v<Result>)
      return Result();
    else
      std::abort();
  }

  struct Body {
    Body() = default;
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
    virtual ~Body() = default;
    virtual Result Run(Arguments... arguments) = 0;
  };

  template <typename F>
  struct Held final : Body {
    explicit Held(F&& f) : function(std::move(f)) {}
    explicit Held(const F& f) : function(f) {}
    Result Run(Arguments... arguments) override {
      return static_cast<Result>(function(std::forward<Arguments>(arguments)...));
    }
    F function;
  };

  // Lambdas have no operator bool; functions and std::function do, in their ways.
  template <typename F, typename = void>
  struct CanBeNull : std::is_pointer<F> {};
  template <typename F>
  struct CanBeNull<F, std::void_t<decltype(std::declval<const F&>().operator bool())>>
      : std::true_type {};

  template <typename F>
  static bool IsNull(const F& function) {
    if constexpr (CanBeNull<F>::value) return !static_cast<bool>(function);
    return false;
  }

  std::unique_ptr<Body> body_;
};

/** Something to be done once. */
using Task = Callable<void()>;

// ---- Main loops ---------------------------------------------------------------------------------

/**
 * The application's main loop, as far as a session needs it: the loop that also runs the default GLib
 * main context, in which the C interface runs its callbacks. GlibLoop, in velmora_svcmgr_glib.hpp,
 * is one for GLib; another is made by deriving from this class.
 *
 * It must outlive the session. A loop that cannot take a task or start a timer (memory is exhausted,
 * or it has ended) says so and keeps nothing. The session keeps the task itself then, and offers it
 * again when a timer of its own runs, or something more is to be run or asked; as long as the loop
 * takes neither tasks nor timers, nothing of what waits is told.
 */
class Loop {
 public:
  /** A running timer; 0 is none. */
  using TimerId = std::uint64_t;

  Loop() = default;
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  virtual ~Loop() = default;

  /**
   * Runs a task on the main-loop thread, later: never inside this call, and after tasks that were
   * posted before. Called on any thread.
   *
   * @return False if the task will not run; it is destroyed then.
   */
  virtual bool Post(Task task) noexcept = 0;

  /**
   * Runs a task as Post does, but after everything else that is ready, of whatever priority: it looks at
   * what the others have found out, such as the loss of the connection. A loop that serves the GLib
   * context once between two of its own tasks needs no other implementation than this one. Called on
   * the main-loop thread.
   */
  virtual bool PostLast(Task task) noexcept { return Post(std::move(task)); }

  /**
   * Runs a task on the main-loop thread, once, when a time has passed; never inside this call. Called
   * on the main-loop thread.
   *
   * @param delay  0 or more.
   * @param task   What is run.
   * @return 0 if there will be no timer; the task is destroyed then.
   */
  virtual TimerId StartTimer(Milliseconds delay, Task task) noexcept = 0;

  /** The time now, on the clock that the timers go by. Another clock makes tests quick. Called on the
   *  main-loop thread. */
  virtual TimePoint Now() const noexcept { return std::chrono::steady_clock::now(); }

  /** Destroys the task of a timer that has not begun to run it. Called on the main-loop thread, also
   *  inside that timer's own task, and then without effect. */
  virtual void CancelTimer(TimerId timer) noexcept = 0;
};

// ---- Errors -------------------------------------------------------------------------------------

/** What the C interface has no code for. The codes of velmora_svcmgr_error_e are all negative. */
enum OwnError : int {
  /** The connection was lost before the answer came. */
  kConnectionLost = 1,
  /** The time limit is over. */
  kTimedOut = 2,
  /** There is another session in this process. */
  kSessionExists = 3,
  /** The agent has no licence text, or could not be asked. */
  kNoLicense = 4,
  /** The agent reports that work on models has failed, without a code. */
  kWorkFailed = 5,
  /** The agent did not take a request for an update, and does not say why. */
  kNotTaken = 6,
};

/** Why something failed; a value. Its texts are static, for people, in English. */
class Error {
 public:
  /** @param code  One of velmora_svcmgr_error_e or of OwnError. Others, which a newer library may
   *               have, are kept as they are. */
  constexpr explicit Error(int code) noexcept : code_(code) {}

  /** As given. */
  constexpr int code() const noexcept { return code_; }
  /** The code's name: as in the C header, such as "SVCMGR_ERROR_NO_SPACE", or "CONNECTION_LOST". */
  const char* name() const noexcept { return Find().name; }
  /** What it means, part of a sentence: "the device has no storage left". */
  const char* meaning() const noexcept { return Find().meaning; }
  /** What can be done about it, a sentence. */
  const char* remedy() const noexcept { return Find().remedy; }
  /** Whether this header knows the code. */
  bool is_known() const noexcept { return Find().code == code_; }

  friend constexpr bool operator==(Error a, Error b) noexcept { return a.code_ == b.code_; }
  friend constexpr bool operator!=(Error a, Error b) noexcept { return a.code_ != b.code_; }

 private:
  struct Row {
    int code;
    const char* name;
    const char* meaning;
    const char* remedy;
  };

  const Row& Find() const noexcept;

  int code_;
};

/** "SVCMGR_ERROR_NO_SPACE: the device has no storage left"; the number of a code that is not known. */
inline std::ostream& operator<<(std::ostream& out, Error error) {
  out << error.name() << ": " << error.meaning();
  return error.is_known() ? out : out << ' ' << error.code();
}

inline const Error::Row& Error::Find() const noexcept {
#define VELMORA_SVCMGR_ROW_(code, meaning, remedy) {code, #code, meaning, remedy}
  static constexpr Row kRows[] = {
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_NONE, "success", "Nothing needs to be done."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_CONNECTION_FAILED, "the agent is not running",
                          "Start the agent, then connect again."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_IO_ERROR, "input or output failed",
                          "Try again; the log of the library says what failed."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_OUT_OF_MEMORY, "memory is exhausted",
                          "Free memory, then try again."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_PERMISSION_DENIED, "permission denied",
                          "Give the application the permission that the agent asks for."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_INVALID_PARAMETER, "an argument is not valid",
                          "Correct the call; for a category, install an application that declares "
                          "it."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_NO_SPACE, "the device has no storage left",
                          "Free storage on the device, then try again."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_INVALID_OPERATION, "the operation could not be carried out",
                          "See that what was named exists; the log of the library says more."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_ALREADY_CONNECTED, "connected already",
                          "Use the connection that stands."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_NOT_CONNECTED, "not connected to the agent",
                          "Connect, and wait until the connection stands."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_NOT_SUPPORTED, "the agent is not installed",
                          "Do without the agent on this device, or install it."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_INVALID_API_LEVEL, "the agent did not tell its API level",
                          "Try again; an agent that answers so again has none."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_KYR_DISABLED, "the KYR feature is disabled",
                          "Do without the agent until the feature is switched on again."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION,
                          "the installed agent is too old for this",
                          "Update the agent, then try again."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_AGENT_CODE_6, "the agent reports its result 6",
                          "Ask the agent's manufacturer; trying again may help."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_OUT_OF_INDEX, "a list ended too early",
                          "Ask for elements below the size of the list."),
      VELMORA_SVCMGR_ROW_(SVCMGR_ERROR_AGENT_CODE_3, "the agent reports its result 3",
                          "Ask the agent's manufacturer; trying again may help."),
      {kConnectionLost, "CONNECTION_LOST", "the connection to the agent was lost",
       "Ask again when the connection stands; what the agent has begun may go on."},
      {kTimedOut, "TIMEOUT", "the agent did not answer in time",
       "Try again, or wait longer; what the agent has begun may go on."},
      {kSessionExists, "SESSION_EXISTS", "there is another session in this process",
       "Share that session, or destroy it first."},
      {kNoLicense, "NO_LICENSE", "the agent has no licence text, or could not be asked",
       "Try again when the connection stands; an agent that answers so again has none."},
      {kWorkFailed, "WORK_FAILED", "the agent reports that the work has failed",
       "Try again; the agent says no more about the reason."},
      {kNotTaken, "NOT_TAKEN", "the agent did not take the request",
       "Try again later; the agent may be busy with another update."},
  };
#undef VELMORA_SVCMGR_ROW_
  static constexpr Row kUnknown = {INT_MAX, "UNKNOWN", "the library reports the unknown code",
                                   "Look up the code in the header of the installed library."};
  const auto* row = std::find_if(std::begin(kRows), std::end(kRows),
                                 [this](const Row& each) { return each.code == code_; });
  return row == std::end(kRows) ? kUnknown : *row;
}

/**
 * What came of something: a value, or an error; in the manner of std::expected, which is of a later
 * language. Reading what is not there ends the process by abort(), with a message.
 */
template <typename T>
class [[nodiscard]] Outcome {
 public:
  /** What a success holds. */
  using value_type = T;
  /** What a failure holds. */
  using error_type = Error;

  /** A success. */
  Outcome(T value) noexcept(std::is_nothrow_move_constructible_v<T>)  // NOLINT(google-explicit-*)
      : content_(std::in_place_index<0>, std::move(value)) {}
  /** A success, of what makes a value: "text" for a std::string. */
  template <typename U,
            typename = std::enable_if_t<
                std::is_convertible_v<U, T> && !std::is_arithmetic_v<T> &&
                !std::is_same_v<std::decay_t<U>, T> && !std::is_same_v<std::decay_t<U>, Outcome> &&
                !std::is_same_v<std::decay_t<U>, Error> && !std::is_enum_v<std::decay_t<U>>>>
  Outcome(U&& value)  // NOLINT(google-explicit-constructor,bugprone-forwarding-reference-overload)
      : content_(std::in_place_index<0>, std::forward<U>(value)) {}
  /** A failure. */
  Outcome(Error error) noexcept : content_(std::in_place_index<1>, error) {}  // NOLINT
  // A code is no number that was asked for: say Error(code).
  Outcome(OwnError) = delete;
  Outcome(velmora_svcmgr_error_e) = delete;

  /** Whether it is a success. */
  bool has_value() const noexcept { return content_.index() == 0; }
  /** The same. */
  explicit operator bool() const& noexcept { return has_value(); }
  // Of a truth that was just asked for, nobody means whether there is one.
  template <typename V = T, std::enable_if_t<std::is_same_v<V, bool>, int> = 0>
  explicit operator bool() && = delete;

  /** The value; there must be one. */
  T& value() & { return *Value(); }
  /** The value; there must be one. */
  const T& value() const& { return *Value(); }
  /** The value; there must be one. */
  T&& value() && { return std::move(*Value()); }
  /** The value; there must be one. */
  T& operator*() & { return *Value(); }
  /** The value; there must be one. */
  const T& operator*() const& { return *Value(); }
  /** The value; there must be one. */
  T&& operator*() && { return std::move(*Value()); }
  /** A member of the value; there must be one. */
  T* operator->() { return Value(); }
  /** A member of the value; there must be one. */
  const T* operator->() const { return Value(); }

  /** The error; there must be one. */
  Error error() const;

  /** The value, or `other` where there is none. */
  template <typename U>
  T value_or(U&& other) && {
    return has_value() ? std::move(*Value()) : static_cast<T>(std::forward<U>(other));
  }
  /** The same, of a copy. */
  template <typename U>
  T value_or(U&& other) const& {
    return has_value() ? *Value() : static_cast<T>(std::forward<U>(other));
  }

  /** The outcome of `next`, which gets the value; or this error. */
  template <typename F>
  auto and_then(F&& next) && -> std::invoke_result_t<F, T> {
    if (!has_value()) return error();
    return std::forward<F>(next)(std::move(*Value()));
  }
  /** The same; the value stays. */
  template <typename F>
  auto and_then(F&& next) const& -> std::invoke_result_t<F, const T&> {
    if (!has_value()) return error();
    return std::forward<F>(next)(*Value());
  }
  /** What `change` makes of the value; or this error. */
  template <typename F>
  auto transform(F&& change) && -> Outcome<std::invoke_result_t<F, T>> {
    if (!has_value()) return error();
    return Made(std::forward<F>(change), std::move(*Value()));
  }
  /** The same; the value stays. */
  template <typename F>
  auto transform(F&& change) const& -> Outcome<std::invoke_result_t<F, const T&>> {
    if (!has_value()) return error();
    return Made(std::forward<F>(change), *Value());
  }

#if defined(__cpp_exceptions)
  /** The value; throws OutcomeError if there is none. */
  T value_or_throw() &&;
#endif

 private:
  template <typename F, typename V>
  static auto Made(F&& change, V&& value) -> Outcome<std::invoke_result_t<F, V>> {
    if constexpr (std::is_void_v<std::invoke_result_t<F, V>>) {
      std::forward<F>(change)(std::forward<V>(value));
      return {};
    } else {
      return std::forward<F>(change)(std::forward<V>(value));
    }
  }

  T* Value();
  const T* Value() const { return const_cast<Outcome*>(this)->Value(); }

  std::variant<T, Error> content_;
};

/** Success, or an error. */
template <>
class [[nodiscard]] Outcome<void> {
 public:
  /** A success holds nothing. */
  using value_type = void;
  /** What a failure holds. */
  using error_type = Error;

  /** A success. */
  Outcome() noexcept = default;
  /** A failure. */
  Outcome(Error error) noexcept : error_(error) {}  // NOLINT(google-explicit-constructor)

  /** Whether it is a success. */
  bool has_value() const noexcept { return !error_.has_value(); }
  /** The same. */
  explicit operator bool() const noexcept { return has_value(); }
  /** The error; there must be one. */
  Error error() const;

  /** The outcome of `next`, which is called after a success; or this error. */
  template <typename F>
  auto and_then(F&& next) const -> std::invoke_result_t<F> {
    if (error_) return *error_;
    return std::forward<F>(next)();
  }
  /** What `make` returns, which is called after a success; or this error. */
  template <typename F>
  auto transform(F&& make) const -> Outcome<std::invoke_result_t<F>> {
    if (error_) return *error_;
    if constexpr (std::is_void_v<std::invoke_result_t<F>>) {
      std::forward<F>(make)();
      return {};
    } else {
      return std::forward<F>(make)();
    }
  }

#if defined(__cpp_exceptions)
  /** Throws OutcomeError unless it is a success. */
  void value_or_throw() const;
#endif

 private:
  std::optional<Error> error_;
};

#if defined(__cpp_exceptions)
/** An error, thrown by Outcome::value_or_throw and by nothing else. */
class OutcomeError : public std::exception {
 public:
  explicit OutcomeError(Error error) noexcept : error_(error) {}
  Error error() const noexcept { return error_; }
  /** The error's meaning. */
  const char* what() const noexcept override { return error_.meaning(); }

 private:
  Error error_;
};

template <typename T>
T Outcome<T>::value_or_throw() && {
  if (!has_value()) throw OutcomeError(error());
  return std::move(*Value());
}

inline void Outcome<void>::value_or_throw() const {
  if (error_) throw OutcomeError(*error_);
}
#endif

// ---- Texts and handles --------------------------------------------------------------------------

namespace detail {

[[noreturn]] inline void Misused(const char* what, const char* which) noexcept {
  std::fprintf(stderr, "velmora::svcmgr: %s%s%s\n", what, *which == '\0' ? "" : ": ", which);
  std::abort();
}

template <auto function>
struct Destroy {
  template <typename T>
  void operator()(T* object) const noexcept {
    static_cast<void>(function(object));
  }
};

template <typename T, auto function>
using Owner = std::unique_ptr<T, Destroy<function>>;

struct Free {
  void operator()(char* text) const noexcept { std::free(text); }
};

}  // namespace detail

template <typename T>
T* Outcome<T>::Value() {
  T* value = std::get_if<0>(&content_);
  if (value == nullptr) detail::Misused("the value of a failure was asked for", error().name());
  return value;
}

template <typename T>
Error Outcome<T>::error() const {
  const Error* error = std::get_if<1>(&content_);
  if (error == nullptr) detail::Misused("the error of a success was asked for", "");
  return *error;
}

inline Error Outcome<void>::error() const {
  if (!error_) detail::Misused("the error of a success was asked for", "");
  return *error_;
}

/** A text that the C interface handed out, without a copy of it; null where there is none. */
class Text {
 public:
  Text() noexcept = default;
  /** Takes over a text that free() releases; may be null. */
  explicit Text(char* text) noexcept : text_(text) {}

  /** Whether there is a text. */
  explicit operator bool() const noexcept { return text_ != nullptr; }
  /** NUL-terminated; "" where there is none. Valid as long as this object. */
  const char* c_str() const& noexcept { return text_ == nullptr ? "" : text_.get(); }
  const char* c_str() && = delete;
  /** Valid as long as this object. */
  std::string_view view() const& noexcept { return c_str(); }
  std::string_view view() && = delete;
  /** A copy. */
  std::string str() const { return c_str(); }

 private:
  std::unique_ptr<char, detail::Free> text_;
};

/** The texts of a model. */
enum class Field { kId, kVersion, kTitle, kDescription };

/**
 * A model as the agent describes it; owns a handle, which may be null: where the library could not
 * make one. All texts of such a model are absent.
 */
class Model {
 public:
  /** What the C interface calls it. */
  using Handle = velmora_svcmgr_ai_model_info_h;

  Model() noexcept = default;
  /** Takes over a handle; may be null. */
  explicit Model(Handle handle) noexcept : handle_(handle) {}

  /** What identifies it: a copy; empty where it is absent, or cannot be read. */
  std::string id() const { return Read(Field::kId).str(); }
  /** Its version: a copy; empty where it is absent, or cannot be read. */
  std::string version() const { return Read(Field::kVersion).str(); }
  /** Its title, for display: a copy; empty where it is absent, or cannot be read. */
  std::string title() const { return Read(Field::kTitle).str(); }
  /** Its description, for display: a copy; empty where it is absent, or cannot be read. */
  std::string description() const { return Read(Field::kDescription).str(); }

  /** A text without a further copy: null where it is absent, or cannot be read. */
  Text Read(Field field) const noexcept { return TryRead(field).value_or(Text()); }

  /** The same, and tells the two apart: an absent text is a success. */
  Outcome<Text> TryRead(Field field) const noexcept;

  /** Whether there is a handle. */
  explicit operator bool() const noexcept { return handle_ != nullptr; }
  /** For the C interface; stays this object's. */
  Handle handle() const noexcept { return handle_.get(); }
  /** For the C interface; the caller releases it. */
  Handle release() noexcept { return handle_.release(); }

 private:
  detail::Owner<velmora_svcmgr_ai_model_info_s, velmora_svcmgr_ai_model_info_destroy> handle_;
};

inline Outcome<Text> Model::TryRead(Field field) const noexcept {
  using Getter = int (*)(Handle, char**);
  constexpr Getter kGetters[] = {
      velmora_svcmgr_ai_model_info_get_id, velmora_svcmgr_ai_model_info_get_version,
      velmora_svcmgr_ai_model_info_get_title, velmora_svcmgr_ai_model_info_get_description};
  if (handle_ == nullptr) return Text();
  char* text = nullptr;
  const int code = kGetters[static_cast<std::size_t>(field)](handle_.get(), &text);
  // The code for a text that is not set.
  if (code == SVCMGR_ERROR_INVALID_OPERATION) return Text();
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  return Text(text);
}

/** What the application calls a model by in a request; a value. Texts that are not given are sent
 *  as "", which the agent takes for "any" where it can: for the version, the newest. */
struct ModelName {
  /** The newest version of this model. */
  ModelName(const char* model) : id(model) {}             // NOLINT(google-explicit-constructor)
  /** The newest version of this model. */
  ModelName(std::string model) : id(std::move(model)) {}  // NOLINT(google-explicit-constructor)
  /** This version of this model. */
  ModelName(std::string model, std::string model_version)
      : id(std::move(model)), version(std::move(model_version)) {}
  /** The same texts as a model that the agent has described. */
  ModelName(const Model& model)  // NOLINT(google-explicit-constructor)
      : id(model.id()),
        version(model.version()),
        title(model.title()),
        description(model.description()) {}

  /** A model for a request, with all its texts set, each once. */
  Outcome<Model> Make() const noexcept;

  /** What identifies it. */
  std::string id;
  /** Its version; empty for the newest. */
  std::string version;
  /** Its title, which most agents do not look at. */
  std::string title;
  /** Its description, which most agents do not look at. */
  std::string description;
};

inline Outcome<Model> ModelName::Make() const noexcept {
  Model::Handle handle = nullptr;
  int code = velmora_svcmgr_ai_model_info_create(&handle);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  Model model(handle);
  code = velmora_svcmgr_ai_model_info_set_id(handle, id.c_str());
  if (code == SVCMGR_ERROR_NONE)
    code = velmora_svcmgr_ai_model_info_set_version(handle, version.c_str());
  if (code == SVCMGR_ERROR_NONE)
    code = velmora_svcmgr_ai_model_info_set_title(handle, title.c_str());
  if (code == SVCMGR_ERROR_NONE)
    code = velmora_svcmgr_ai_model_info_set_description(handle, description.c_str());
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  return model;
}

namespace detail {

/**
 * Walks a list by index. An element is made when it is asked for and belongs to the caller. In C++20
 * a random access iterator; for older algorithms an input iterator, because it hands out values.
 */
template <typename List>
class ListIterator {
 public:
  using value_type = typename List::value_type;
  using difference_type = std::ptrdiff_t;
  using reference = value_type;
  using iterator_category = std::input_iterator_tag;
#if defined(__cpp_lib_ranges)
  using iterator_concept = std::random_access_iterator_tag;
#endif
  /** Keeps the element until the end of the expression. */
  struct pointer {
    value_type element;
    value_type* operator->() noexcept { return &element; }
  };

  ListIterator() noexcept = default;
  ListIterator(const List* list, difference_type index) noexcept : list_(list), index_(index) {}

  reference operator*() const { return (*list_)[static_cast<std::size_t>(index_)]; }
  pointer operator->() const { return {**this}; }
  reference operator[](difference_type n) const { return *(*this + n); }

  ListIterator& operator++() noexcept { return *this += 1; }
  ListIterator& operator--() noexcept { return *this -= 1; }
  ListIterator operator++(int) noexcept { return ListIterator(list_, index_++); }
  ListIterator operator--(int) noexcept { return ListIterator(list_, index_--); }
  ListIterator& operator+=(difference_type n) noexcept {
    index_ += n;
    return *this;
  }
  ListIterator& operator-=(difference_type n) noexcept { return *this += -n; }
  friend ListIterator operator+(ListIterator a, difference_type n) noexcept { return a += n; }
  friend ListIterator operator+(difference_type n, ListIterator a) noexcept { return a += n; }
  friend ListIterator operator-(ListIterator a, difference_type n) noexcept { return a -= n; }
  friend difference_type operator-(const ListIterator& a, const ListIterator& b) noexcept {
    return a.index_ - b.index_;
  }
  friend bool operator==(const ListIterator& a, const ListIterator& b) noexcept {
    return a.index_ == b.index_;
  }
  friend bool operator!=(const ListIterator& a, const ListIterator& b) noexcept {
    return !(a == b);
  }
  friend bool operator<(const ListIterator& a, const ListIterator& b) noexcept {
    return a.index_ < b.index_;
  }
  friend bool operator>(const ListIterator& a, const ListIterator& b) noexcept { return b < a; }
  friend bool operator<=(const ListIterator& a, const ListIterator& b) noexcept { return !(b < a); }
  friend bool operator>=(const ListIterator& a, const ListIterator& b) noexcept { return !(a < b); }

 private:
  const List* list_ = nullptr;
  difference_type index_ = 0;
};

}  // namespace detail

namespace detail {

/** What is common to the owners of lists. */
template <typename T, auto destroy, auto get_size>
class ListOwner {
 public:
  using Handle = T*;

  /** An empty list, without a handle. */
  ListOwner() noexcept = default;
  /** Takes over a handle; may be null. */
  explicit ListOwner(Handle handle) noexcept : handle_(handle) {
    int size = 0;
    if (handle != nullptr && get_size(handle, &size) == SVCMGR_ERROR_NONE && size > 0)
      size_ = static_cast<std::size_t>(size);
  }
  ListOwner(ListOwner&& other) noexcept
      : handle_(std::move(other.handle_)), size_(std::exchange(other.size_, 0)) {}
  ListOwner& operator=(ListOwner&& other) noexcept {
    handle_ = std::move(other.handle_);
    size_ = std::exchange(other.size_, 0);
    return *this;
  }
  ListOwner(const ListOwner&) = delete;
  ListOwner& operator=(const ListOwner&) = delete;
  ~ListOwner() = default;

  /** The size that the list had when it was taken over. */
  std::size_t size() const noexcept { return size_; }
  /** Whether there is nothing in it. */
  bool empty() const noexcept { return size_ == 0; }

  /** For the C interface; stays this object's. Whoever adds to it there, takes it over anew. */
  Handle handle() const noexcept { return handle_.get(); }
  /** For the C interface; the caller releases it. */
  Handle release() noexcept {
    size_ = 0;
    return handle_.release();
  }

 protected:
  void Grow() noexcept { ++size_; }

 private:
  Owner<T, destroy> handle_;
  std::size_t size_ = 0;
};

}  // namespace detail

/** Models, in the agent's order; owns a handle, which may be null. Moved, never copied. */
class ModelList
    : public detail::ListOwner<velmora_svcmgr_ai_model_list_s, velmora_svcmgr_ai_model_list_destroy,
                               velmora_svcmgr_ai_model_list_get_size> {
 public:
  using ListOwner::ListOwner;
  /** A model, copied out of the list. */
  using value_type = Model;
  /** Reads copies, one after the other. */
  using iterator = detail::ListIterator<ModelList>;
  /** The same: copies change nothing in the list. */
  using const_iterator = iterator;

  /** A list for a request. */
  static Outcome<ModelList> Make(const std::vector<ModelName>& models) noexcept;

  /** A copy of a model; one without a handle if it cannot be read. An index that is not below the
   *  size is never passed on. */
  Model operator[](std::size_t index) const noexcept { return At(index).value_or(Model()); }
  /** The same, and says why it cannot be read. */
  Outcome<Model> At(std::size_t index) const noexcept;

  /** The first one. */
  iterator begin() const noexcept { return {this, 0}; }
  /** Behind the last one. */
  iterator end() const noexcept { return {this, static_cast<std::ptrdiff_t>(size())}; }
};

inline Outcome<Model> ModelList::At(std::size_t index) const noexcept {
  if (index >= size()) return Error(SVCMGR_ERROR_OUT_OF_INDEX);
  Model::Handle model = nullptr;
  const int code = velmora_svcmgr_ai_model_list_get(handle(), static_cast<int>(index), &model);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  return Model(model);
}

inline Outcome<ModelList> ModelList::Make(const std::vector<ModelName>& models) noexcept {
  Handle raw = nullptr;
  int code = velmora_svcmgr_ai_model_list_create(&raw);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  ModelList list(raw);
  for (const ModelName& name : models) {
    const Outcome<Model> model = name.Make();
    if (!model) return model.error();
    code = velmora_svcmgr_ai_model_list_add(raw, model->handle());
    if (code != SVCMGR_ERROR_NONE) return Error(code);
    list.Grow();
  }
  return list;
}

/** Names of agents; owns a handle, which may be null. Moved, never copied. */
class AgentList
    : public detail::ListOwner<velmora_svcmgr_agent_list_s, velmora_svcmgr_agent_list_destroy,
                               velmora_svcmgr_agent_list_get_size> {
 public:
  using ListOwner::ListOwner;
  /** A name, copied out of the list. */
  using value_type = std::string;
  /** Reads copies, one after the other. */
  using iterator = detail::ListIterator<AgentList>;
  /** The same: copies change nothing in the list. */
  using const_iterator = iterator;

  /** A list for a request. */
  static Outcome<AgentList> Make(const std::vector<std::string>& names) noexcept;

  /** A copy of a name; empty if it cannot be read. */
  std::string operator[](std::size_t index) const {
    const Outcome<Text> text = At(index);
    return text ? text->str() : std::string();
  }
  /** A name without a further copy, or why it cannot be read. */
  Outcome<Text> At(std::size_t index) const noexcept;

  /** The first one. */
  iterator begin() const noexcept { return {this, 0}; }
  /** Behind the last one. */
  iterator end() const noexcept { return {this, static_cast<std::ptrdiff_t>(size())}; }
};

inline Outcome<Text> AgentList::At(std::size_t index) const noexcept {
  if (index >= size()) return Error(SVCMGR_ERROR_OUT_OF_INDEX);
  char* name = nullptr;
  const int code = velmora_svcmgr_agent_list_get(handle(), static_cast<int>(index), &name);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  return Text(name);
}

inline Outcome<AgentList> AgentList::Make(const std::vector<std::string>& names) noexcept {
  Handle raw = nullptr;
  int code = velmora_svcmgr_agent_list_create(&raw);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  AgentList list(raw);
  for (const std::string& name : names) {
    code = velmora_svcmgr_agent_list_add(raw, name.c_str());
    if (code != SVCMGR_ERROR_NONE) return Error(code);
    list.Grow();
  }
  return list;
}

// ---- Work on models: progress and its end ---------------------------------------------------------

/** The states of work as agents count them; others are passed on as they are. */
enum class WorkState : int { kNone = 0, kWorking = 1, kDone = 2, kFailed = 3 };

/** One progress message, as the agent sent it. */
struct WorkReport {
  /** Takes over a record, which may be null; all numbers are 0 then. */
  static WorkReport Take(int error, velmora_svcmgr_ai_progress_h record) noexcept;

  /** SVCMGR_ERROR_NONE, or why the work has failed. */
  int error = SVCMGR_ERROR_NONE;
  /** The state of the work. */
  WorkState state = WorkState::kNone;
  /** The model that is worked on, from 1. */
  int index = 0;
  /** Models in the request. */
  int count = 0;
  /** Hundredths of that model. */
  int percentage = 0;
};

inline WorkReport WorkReport::Take(int error, velmora_svcmgr_ai_progress_h record) noexcept {
  WorkReport report;
  report.error = error;
  if (record == nullptr) return report;
  const detail::Owner<velmora_svcmgr_ai_progress_s, velmora_svcmgr_ai_progress_destroy> owner(
      record);
  int state = 0;
  velmora_svcmgr_ai_progress_get_state(record, &state);
  report.state = static_cast<WorkState>(state);
  velmora_svcmgr_ai_progress_get_index(record, &report.index);
  velmora_svcmgr_ai_progress_get_count(record, &report.count);
  velmora_svcmgr_ai_progress_get_percentage(record, &report.percentage);
  return report;
}

/** How far work has come, cleaned up: `model` and `total` never go backwards, nor does `percent` for
 *  the same model, and a total of 100 percent is reached only when the work is done, whatever the agent
 *  sends. */
struct Progress {
  /** The model that is worked on, from 0, as it stands in the request. */
  std::size_t model = 0;
  /** Models in the request. */
  std::size_t count = 0;
  /** Hundredths of that model. */
  int percent = 0;
  /** Hundredths of the whole. */
  int total = 0;
  /** The latest message as it came; all 0 if there was none yet. */
  WorkReport report;
};

/** What may be said of work. */
enum class Verdict { kGoesOn, kDone, kFailed };

/** What is known of work when the rule of its end is asked. */
struct WorkSight {
  /** Models in the request. */
  std::size_t models = 0;
  /** The latest message; null before the first one. */
  const WorkReport* report = nullptr;
  /** Whether the messages have come to the last model; true before the first one. */
  bool last_reached = true;
  /** How often the device has reported, since the request, that work on models began; it reports the
   *  work of others, too. */
  int begun = 0;
  /** Likewise, that it ended. */
  int ended = 0;
  /** What the events tell since the latest message: kGoesOn unless as many ends as beginnings were
   *  reported, at least one; kDone only if the last model was reached. */
  Verdict by_events = Verdict::kGoesOn;
  /** For how long nothing has been heard. */
  Milliseconds silence{0};
  /** Whether the time limit is over: what is not decided now, is timed out. */
  bool time_is_up = false;
};

/** Decides whether work is over. Asked after each message and event, four times a second in between,
 *  and when the time is up. Must not touch the session. One that throws has said nothing. */
using EndRule = Callable<Verdict(const WorkSight&)>;

/** How long events must stay unopposed by messages until StandardEnd believes them. */
inline constexpr Milliseconds kEventsBelievedAfter{2000};

/**
 * The rule that is used unless another is given. Work is over
 *
 *  - with the first message that has an error, or the state kDone or kFailed;
 *  - without such a message: when the events tell of an end (WorkSight::by_events), and nothing more
 *    is heard for two seconds, or the time is up.
 *
 * Other states, or a percentage of 100, do not end it. So an agent that sends no final message leaves the
 * end unknown where its events are not heard, as without a session bus, or are overtaken by its
 * messages: an event and a message take different ways. Such work goes on until one of the limits of
 * WorkOptions is over; give each work one.
 */
inline Verdict StandardEnd(const WorkSight& sight) noexcept {
  if (sight.report != nullptr) {
    if (sight.report->error != SVCMGR_ERROR_NONE || sight.report->state == WorkState::kFailed)
      return Verdict::kFailed;
    if (sight.report->state == WorkState::kDone) return Verdict::kDone;
  }
  if (sight.silence < kEventsBelievedAfter && !sight.time_is_up) return Verdict::kGoesOn;
  return sight.by_events;
}

/**
 * Makes progress and an end of what the agent says about work on models; ModelWork uses it, and so
 * may an application that makes the requests itself. Knows no clock: times are those of one that goes
 * forward. One thread at a time.
 */
class WorkTracker {
 public:
  /**
   * Throws std::bad_alloc.
   *
   * @param models  The number of models in the request.
   * @param now     When the request is made.
   * @param rule    StandardEnd, unless one is given.
   */
  WorkTracker(std::size_t models, TimePoint now, EndRule rule = nullptr)
      : percents_(models, 0), rule_(std::move(rule)), heard_(now) {
    if (!rule_) rule_ = EndRule(&StandardEnd);
  }

  /** The request was sent, or sent again: events count, and silence is measured, from here. */
  void Begin(TimePoint now) noexcept {
    heard_ = now;
    begun_ = ended_ = 0;
    by_events_ = Verdict::kGoesOn;
  }
  /** A message of the agent; the rule is asked. */
  void Take(const WorkReport& report, TimePoint now);
  /**
   * An event of work on models.
   *
   * @param status  One of velmora_svcmgr_ai_status_e.
   * @param now     When it is heard.
   */
  void TakeStatus(int status, TimePoint now);

  /** What the rule says; once it has said that the work is over, that stays. */
  Verdict Judge(TimePoint now, bool time_is_up = false) { return Ask(now, time_is_up, false); }
  /** What the rule has said last. */
  Verdict verdict() const noexcept { return verdict_; }
  /** Whether events have decided, not a message. */
  bool ended_by_events() const noexcept { return ended_by_events_; }
  /** Why the work has failed: the error of the message that ended it, or kWorkFailed. */
  Error failure() const noexcept {
    const bool told = !ended_by_events_ && report_.error != SVCMGR_ERROR_NONE;
    return Error(told ? report_.error : static_cast<int>(kWorkFailed));
  }

  /** How far it has come. */
  Progress progress() const noexcept;
  /** Hundredths of one model. @param model  From 0, below the number of models. */
  int PercentOf(std::size_t model) const noexcept {
    return verdict_ == Verdict::kDone ? kWhole : percents_[model];
  }
  /** The mean of all models' hundredths, without rounding. */
  double ExactTotal() const noexcept;
  /** How long nothing was heard. */
  std::chrono::steady_clock::duration Silence(TimePoint now) const noexcept { return now - heard_; }

 private:
  static constexpr int kWhole = 100;

  void Advance(const WorkReport& report);
  Verdict Ask(TimePoint now, bool time_is_up, bool fresh_report);

  std::vector<int> percents_;
  EndRule rule_;
  TimePoint heard_;
  std::size_t current_ = 0;
  bool reported_ = false;
  WorkReport report_;
  int begun_ = 0;
  int ended_ = 0;
  Verdict by_events_ = Verdict::kGoesOn;
  Verdict verdict_ = Verdict::kGoesOn;
  bool ended_by_events_ = false;
};

inline void WorkTracker::Take(const WorkReport& report, TimePoint now) {
  heard_ = now;
  if (verdict_ != Verdict::kGoesOn) return;
  // Work that goes on has not ended: the events were about other work.
  by_events_ = Verdict::kGoesOn;
  reported_ = true;
  report_ = report;
  Advance(report);
  Ask(now, false, true);
}

inline void WorkTracker::Advance(const WorkReport& report) {
  if (report.index < 1 || static_cast<std::size_t>(report.index) > percents_.size()) return;
  const auto model = static_cast<std::size_t>(report.index) - 1;
  if (model < current_) return;
  std::fill_n(percents_.begin(), model, kWhole);
  current_ = model;
  percents_[model] = std::max(percents_[model], std::clamp(report.percentage, 0, kWhole - 1));
}

inline void WorkTracker::TakeStatus(int status, TimePoint now) {
  heard_ = now;
  if (verdict_ != Verdict::kGoesOn) return;
  if (status == SVCMGR_AI_STATUS_STARTED) {
    ++begun_;
  } else if (status == SVCMGR_AI_STATUS_COMPLETED || status == SVCMGR_AI_STATUS_FAILED) {
    ++ended_;
    if (begun_ > 0 && ended_ >= begun_) {
      const bool last_reached = !reported_ || current_ + 1 >= percents_.size();
      if (status == SVCMGR_AI_STATUS_FAILED)
        by_events_ = Verdict::kFailed;
      else if (last_reached)
        by_events_ = Verdict::kDone;
    }
  }
  Judge(now);
}

inline Verdict WorkTracker::Ask(TimePoint now, bool time_is_up, bool fresh_report) {
  if (verdict_ != Verdict::kGoesOn) return verdict_;
  WorkSight sight;
  sight.models = percents_.size();
  sight.report = reported_ ? &report_ : nullptr;
  sight.last_reached = !reported_ || current_ + 1 >= percents_.size();
  sight.begun = begun_;
  sight.ended = ended_;
  sight.by_events = by_events_;
  sight.silence = std::chrono::duration_cast<Milliseconds>(now - heard_);
  sight.time_is_up = time_is_up;
  verdict_ = rule_(sight);
  ended_by_events_ = verdict_ != Verdict::kGoesOn && !fresh_report;
  return verdict_;
}

inline double WorkTracker::ExactTotal() const noexcept {
  if (percents_.empty()) return 0;
  double sum = 0;
  for (const int percent : percents_) sum += percent;
  return sum / static_cast<double>(percents_.size());
}

inline Progress WorkTracker::progress() const noexcept {
  Progress progress;
  progress.model = current_;
  progress.count = percents_.size();
  progress.report = report_;
  const bool done = verdict_ == Verdict::kDone;
  if (!percents_.empty()) progress.percent = PercentOf(current_);
  progress.total = done ? kWhole : std::min(static_cast<int>(ExactTotal()), kWhole - 1);
  return progress;
}

// ---- Session: what it tells, and how it behaves -------------------------------------------------

/** What has become of a session's connection. */
enum class State {
  /** Not connected: not yet, or by the application's own wish. Requests end with
   *  SVCMGR_ERROR_NOT_CONNECTED. */
  kIdle,
  /** An attempt is under way. Requests wait for it. */
  kConnecting,
  /** The connection stands. */
  kConnected,
  /** The agent replaces itself, and is expected back. Requests wait for it. */
  kRestarting,
  /** The connection was lost; it comes back by itself when the agent is launched again. Until then
   *  requests end with kConnectionLost, unless Options::resend, or WorkOptions::resend, says that they
   *  wait. */
  kLost,
  /** The agent refused the application. Requests end with Session::error(). */
  kRejected,
  /** Connecting failed, as Session::error() says; Connect() tries again. Requests end with that. */
  kFailed,
  /** There is another session in this process: this one does nothing. */
  kRefused,
};

/** The name of a state, without its k: "Connected". */
inline const char* NameOf(State state) noexcept {
  constexpr const char* kNames[] = {"Idle", "Connecting", "Connected", "Restarting",
                                    "Lost", "Rejected",   "Failed",    "Refused"};
  const auto index = static_cast<std::size_t>(state);
  return index < std::size(kNames) ? kNames[index] : "Unknown";
}

/** What is sent again, when the connection stands again, of that which a loss has swallowed: queries as
 *  Options say, work on models as its WorkOptions say, requests for updates never. */
enum class Resend {
  /** Nothing: it ends with kConnectionLost. */
  kNever,
  /** What was lost while the agent replaced itself. */
  kAfterRestart,
  /** All; it waits as long as it takes, or until its time limit. */
  kAfterAnyLoss,
};

/** How a session behaves. */
struct Options {
  /** Whether the session connects by itself, as soon as the main loop runs. */
  bool connect = true;
  /** How long an attempt to connect may take; kFailed with kTimedOut then. A connection that comes
   *  up later is taken all the same. */
  Milliseconds connect_limit{30'000};
  /** After which losses queries are asked again. */
  Resend resend = Resend::kAfterRestart;
  /** How long the agent may be away while it replaces itself; kLost then. */
  Milliseconds restart_patience{60'000};
  /** Called inside a catch block with each exception that leaves a callable; must not throw. Null:
   *  std::terminate. */
  Task on_exception = nullptr;
};

/** How work on models is followed; moved, as its rule is. */
struct WorkOptions {
  /** How long all of it may take, waiting for the connection included. */
  Milliseconds limit = kNoLimit;
  /** How long nothing may be heard of it, or of other work on the device, once it was asked for;
   *  kTimedOut then. Where there are signs that the agent has replaced itself between two looks, and
   *  `resend` allows it, it is asked for again first. Without a limit, work whose end the agent does
   *  not tell goes on for ever. */
  Milliseconds silence_limit = kNoLimit;
  /** After which losses of the connection it is asked for again; after others it ends with
   *  kConnectionLost. Models that were done by then are asked for a second time. */
  Resend resend = Resend::kNever;
  /** How its end is known; StandardEnd if null. */
  EndRule rule = nullptr;
};

/** How an update of the agents goes; see velmora_svcmgr_update_status_e. All but kStarted are ends. A
 *  newer library may have others, which are passed on as they are. */
enum class UpdateStatus : int {
  kStarted = SVCMGR_UPDATE_STATUS_STARTED,
  kCompleted = SVCMGR_UPDATE_STATUS_COMPLETED,
  kResult1 = SVCMGR_UPDATE_STATUS_RESULT_1,
  kResult3 = SVCMGR_UPDATE_STATUS_RESULT_3,
  kResult7 = SVCMGR_UPDATE_STATUS_RESULT_7,
  kResult10 = SVCMGR_UPDATE_STATUS_RESULT_10,
  kFailed = SVCMGR_UPDATE_STATUS_FAILED,
  kResult13 = SVCMGR_UPDATE_STATUS_RESULT_13,
};

/** What happens to the device's models, whoever asked for it; see velmora_svcmgr_ai_status_e. */
enum class ModelStatus : int {
  kStarted = SVCMGR_AI_STATUS_STARTED,
  kCompleted = SVCMGR_AI_STATUS_COMPLETED,
  kFailed = SVCMGR_AI_STATUS_FAILED,
};

/** A change of the connection as the C interface reports it; see velmora_svcmgr_connection_cb. */
struct ConnectionReport {
  /** SVCMGR_ERROR_NONE, or why the agent refused. */
  int result = SVCMGR_ERROR_NONE;
  /** One of velmora_svcmgr_connection_state_e. */
  int state = SVCMGR_CONNECTION_STATE_CONNECTED;
};

class Session;

namespace detail {

// What the C interface gets as user data. Never used twice, never 0.
using Id = std::uintptr_t;

// Whether a time is over; a limit may be too long to be counted in what clocks count.
inline bool IsOver(TimePoint::duration passed, Milliseconds limit) noexcept {
  return std::chrono::duration_cast<Milliseconds>(passed) >= limit;
}

inline void* ToUserData(Id id) noexcept {
  return reinterpret_cast<void*>(id);  // NOLINT(performance-no-int-to-ptr)
}
inline Id ToId(void* user_data) noexcept { return reinterpret_cast<Id>(user_data); }

class Core;

// What a token stands for. Lives in the session's table until it is over.
class Entry {
 public:
  enum class Stage { kHeld, kSent, kDoubtful, kEnding, kOver };

  Entry() = default;
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;
  virtual ~Entry() = default;

  // Asks the C interface; returns its code.
  virtual int Send(Core& core) noexcept = 0;
  // Calls the callable with an error, the last that it hears.
  virtual void End(Core& core, Error error) noexcept = 0;
  // The time limit is over.
  virtual void TimeIsUp(Core& core) noexcept { End(core, Error(kTimedOut)); }
  // Nothing more is to be begun; called on the main-loop thread.
  virtual void Cancel() noexcept {}
  // It was released: nothing of it is called any more.
  virtual void Release(Core&) noexcept {}
  // Looks at what only time can tell.
  virtual void Look(Core&, TimePoint) noexcept {}
  // Whether it changes nothing, so that it may be asked again where it is only late.
  virtual bool IsQuery() const noexcept { return false; }
  // After which losses it goes to the agent again.
  virtual Resend ResendAfter(const Options& options) const noexcept {
    return IsQuery() ? options.resend : Resend::kNever;
  }
  virtual bool NeedsConnection() const noexcept { return true; }
  // Whether the answer comes by a callback, so that a lost connection swallows it; otherwise it is
  // asked by a call that blocks.
  virtual bool IsAnsweredByCallback() const noexcept { return true; }

  Id id = 0;
  Stage stage = Stage::kHeld;
  // Which connection of the session it was sent over.
  unsigned connection = 0;
  // When it was sent, or last heard of; and how often it was sent.
  TimePoint heard;
  int times_sent = 0;
  // Work: because it was silent, and nothing was heard of it since.
  bool asked_again = false;
  Loop::TimerId limit = 0;
  // What it is to end with.
  Error last_word{SVCMGR_ERROR_NONE};
};

// Tasks in their order. Holds them in memory of its own, so that a full queue never refuses one.
class TaskQueue {
 public:
  struct Node {
    Task task;
    std::unique_ptr<Node> next;
  };

  // Null if memory is exhausted, or there is nothing to do.
  static std::unique_ptr<Node> Make(Task task) noexcept {
    if (!task) return nullptr;
    return std::unique_ptr<Node>(new (std::nothrow) Node{std::move(task), nullptr});
  }

  bool empty() const noexcept { return first_ == nullptr; }
  void Push(std::unique_ptr<Node> node) noexcept {
    Node* const last = node.get();
    (empty() ? first_ : last_->next) = std::move(node);
    last_ = last;
  }
  // Null if it is empty.
  std::unique_ptr<Node> Pop() noexcept {
    std::unique_ptr<Node> node = std::move(first_);
    if (node != nullptr) first_ = std::move(node->next);
    return node;
  }

 private:
  std::unique_ptr<Node> first_;
  Node* last_ = nullptr;
};

// One thread for all calls that block; it ends when nothing is left to do. Never destroyed.
class Worker {
 public:
  // False if there can be no thread, or no memory.
  bool Run(Task task) noexcept;
  // Calls of the C interface that are under way.
  std::atomic<int> calls{0};

 private:
  static void* Main(void* self) noexcept;
  bool Start() noexcept;

  std::mutex mutex_;
  TaskQueue tasks_;
  bool running_ = false;
};

inline bool Worker::Run(Task task) noexcept {
  auto node = TaskQueue::Make(std::move(task));
  const std::lock_guard<std::mutex> lock(mutex_);
  if (node == nullptr || (!running_ && !Start())) return false;
  running_ = true;
  tasks_.Push(std::move(node));
  return true;
}

inline bool Worker::Start() noexcept {
  // Signals are for the application's own threads.
  sigset_t all;
  sigset_t own;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &own);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  const bool started = pthread_create(&thread, &attributes, Main, this) == 0;
  pthread_attr_destroy(&attributes);
  pthread_sigmask(SIG_SETMASK, &own, nullptr);
  return started;
}

inline void* Worker::Main(void* self) noexcept {
  Worker& worker = *static_cast<Worker*>(self);
  std::unique_lock<std::mutex> lock(worker.mutex_);
  while (auto node = worker.tasks_.Pop()) {
    lock.unlock();
    node->task();
    node.reset();
    lock.lock();
  }
  worker.running_ = false;
  return nullptr;
}

// What there is once in a process. Never destroyed: callbacks may come until the process ends.
struct VELMORA_SVCMGR_SHARED_ Registry {
  std::mutex mutex;
  std::weak_ptr<Core> core;
  pid_t pid = 0;
  std::atomic<Id> last_id{0};
  // Of this process: a forked child inherits no threads.
  Worker* worker = nullptr;
};

VELMORA_SVCMGR_SHARED_ inline Registry& TheRegistry() {
  static auto* const registry = new Registry;
  return *registry;
}

inline std::shared_ptr<Core> TheCore() noexcept {
  Registry& registry = TheRegistry();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  return registry.pid == getpid() ? registry.core.lock() : nullptr;
}

// What is common to all that a session does. Outlives the session while something of it is on the
// stack; closed() says that nothing may be called any more.
class Core : public std::enable_shared_from_this<Core> {
 public:
  Core(Loop& loop, Options options)
      : loop_(&loop),
        thread_(pthread_self()),
        on_exception_(std::make_shared<Task>(std::move(options.on_exception))),
        options_(std::move(options)) {}
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  ~Core() = default;

  // Calls of the application.

  void Open();
  void Close() noexcept;
  Outcome<void> Connect();
  void Disconnect();
  void Add(const std::shared_ptr<Entry>& entry, Milliseconds limit);
  void Remove(Id id) noexcept;
  bool Has(Id id) const noexcept {
    return entries_.count(id) + connections.hearers.count(id) + updates.hearers.count(id) +
               models.hearers.count(id) !=
           0;
  }
  // Whether the agent was asked, and an answer may come.
  bool IsSent(Id id) const noexcept {
    const auto found = entries_.find(id);
    return found != entries_.end() && found->second->stage == Entry::Stage::kSent;
  }
  void HearStates(Callable<void(State)> heard);

  template <typename Status>
  struct Audience;
  template <typename Status>
  Outcome<Id> Subscribe(Audience<Status>& audience, Callable<void(Status)> heard);

  // What entries need.

  // Calls a callable of the application, which may destroy everything but this.
  template <typename F, typename... Arguments>
  void Call(F&& callable, Arguments&&... arguments) noexcept;
  // Takes an entry out before its last word; null if it is over.
  std::shared_ptr<Entry> Take(Id id) noexcept;
  // Ends it with an error, later: inside no call of the application.
  void EndLater(Id id, Error error) noexcept;
  // An answer that memory does not suffice for. Nothing can be done on another thread.
  void Swallow(Id id) noexcept {
    if (pthread_equal(thread_, pthread_self()) != 0)
      EndLater(id, Error(SVCMGR_ERROR_OUT_OF_MEMORY));
  }
  // Ends it with an error unless the connection turns out to have been lost: then it is lost, too.
  void Doubt(Id id, Error error) noexcept;
  // Sends what may have been swallowed by a restart that nobody saw; false if there is no sign of one,
  // or it is not to be sent again.
  bool SendAgain(Id id) noexcept;
  // Whether update status callables run, inside which the C interface forgets requests for updates.
  bool IsTellingUpdates() const noexcept { return telling_updates_ > 0; }
  void ExpectUpdate() noexcept { update_known_ = true; }
  // A call that uses the connection is handed to the worker, and has returned. The C interface serves
  // one at a time: what else needs the connection waits, in its order, so that the main loop goes on.
  void BeginBlocking() noexcept { ++blocking_; }
  void EndBlocking() noexcept;
  // Runs a function with this core in the main loop, if there still is a session; kept here until the
  // loop takes it. False if memory is exhausted.
  template <typename F>
  bool Post(F function) noexcept;
  // The same in two steps, of which the second cannot fail. Any thread.
  template <typename F>
  std::unique_ptr<TaskQueue::Node> Prepare(F function) noexcept {
    return TaskQueue::Make(Here(std::move(function)));
  }
  void Post(std::unique_ptr<TaskQueue::Node> prepared) noexcept;
  // After everything else that is ready. False if the loop does not take it now.
  template <typename F>
  bool PostLast(F function) noexcept;
  // Any thread. Where a callback must not run at once: on another thread, or inside a request.
  bool MustDefer() const noexcept {
    return pthread_equal(thread_, pthread_self()) == 0 || sending_ > 0;
  }
  void KeepLooking() noexcept;

  bool closed() const noexcept { return closed_; }
  TimePoint Now() const noexcept { return loop_ == nullptr ? TimePoint() : loop_->Now(); }
  State state() const noexcept { return state_; }
  const std::optional<Error>& error() const noexcept { return error_; }
  const Options& options() const noexcept { return options_; }
  unsigned connection() const noexcept { return connection_; }
  bool MaySend() const noexcept { return state_ == State::kConnected && blocking_ == 0; }

  // What comes from the C interface, on the main-loop thread.

  void HearConnection(int result, int state) noexcept;
  void HearUpdate(int status) noexcept;
  void HearModels(int status) noexcept;
  Entry* Find(Id id) noexcept {
    const auto found = entries_.find(id);
    return found == entries_.end() ? nullptr : found->second.get();
  }

  // All who hear of one kind of event; the C interface knows one callback for each.
  template <typename Status>
  struct Audience {
    std::map<Id, std::shared_ptr<Callable<void(Status)>>> hearers;
    int (*subscribe)();
    int (*unsubscribe)();
  };
  Audience<ConnectionReport> connections{{}, [] { return 0; }, [] { return 0; }};
  Audience<UpdateStatus> updates{{}, SubscribeToUpdates, velmora_svcmgr_unset_update_status_cb};
  Audience<ModelStatus> models{{}, SubscribeToModels, velmora_svcmgr_ai_deregister_status_cb};

 private:
  static constexpr Milliseconds kLookEvery{250};
  static constexpr Milliseconds kLookWhileAwayEvery{2000};
  static constexpr Milliseconds kNudgeEvery{1000};
  static constexpr Milliseconds kAskAgainAfter{2000};
  static constexpr Milliseconds kAskForWorkAgainAfter{5000};

  static int SubscribeToUpdates();
  static int SubscribeToModels();
  static void OnConnection(int result, int state, void*) noexcept;

  static void OnUpdateStatus(int status, void*) noexcept;
  static void OnModelStatus(int error, int status, void*) noexcept;

  template <typename Status>
  void Tell(Audience<Status>& audience, Status status) noexcept;
  void Follow(int result, int state) noexcept;
  void LoseEntry(const std::shared_ptr<Entry>& entry, bool returns) noexcept;
  // In a forked child, the session is its parent's.
  bool IsParents() const noexcept { return pid_ != getpid(); }
  void SetState(State state) noexcept;
  void TellState(State state) noexcept;
  void StartConnecting() noexcept;
  void FinishConnecting(int code) noexcept;
  void Fail(State state, Error error) noexcept;
  void Submit(const std::shared_ptr<Entry>& entry) noexcept;
  void SendNow(const std::shared_ptr<Entry>& entry) noexcept;
  void Lose(bool returns) noexcept;
  void Return() noexcept;
  void EndConnection() noexcept;
  void SendHeld() noexcept;
  void EndAll(Error error, bool held_too) noexcept;
  void Look() noexcept;
  void OnLook() noexcept;
  void LookAtEntries() noexcept;
  bool MayBeSwallowed(const Entry& entry) const noexcept;
  Milliseconds PatienceWith(const Entry& entry) const noexcept;
  void LookAtRestart(TimePoint now) noexcept;
  void NoteUpdate(bool goes_on) noexcept;
  bool MustLook() const noexcept;
  template <typename F>
  Task Here(F function) noexcept;
  void Announce() noexcept;
  void AnnounceAgain() noexcept;
  template <typename F>
  Loop::TimerId StartTimer(Milliseconds delay, F function) noexcept;
  void StopTimer(Loop::TimerId& timer) noexcept;
  template <typename F>
  void ForEach(F function) noexcept;

  // Guards loop_ against a worker that has done; only the main-loop thread changes it. And what is to
  // run there, of which the loop does not know of so many yet.
  std::mutex loop_mutex_;
  Loop* loop_;
  TaskQueue posted_;
  std::atomic<int> unannounced_{0};
  const pthread_t thread_;
  const pid_t pid_ = getpid();
  // Held by each call of a callable, which may end the session and throw then.
  std::shared_ptr<Task> on_exception_;
  Options options_;
  bool closed_ = false;
  State state_ = State::kIdle;
  // Changes that wait to be told.
  int untold_ = 0;
  std::optional<Error> error_;
  std::shared_ptr<Callable<void(State)>> heard_state_;
  // Whether the application wants a connection.
  bool wanted_ = false;
  // Inside velmora_svcmgr_connect, and what it has reported so far.
  bool in_connect_ = false;
  std::optional<std::pair<int, int>> reported_;
  // Calls of this interface that are under way: callables wait until they have returned.
  int inside_ = 0;
  std::atomic<int> sending_{0};
  // Calls on the worker that use the connection.
  int blocking_ = 0;
  // The connection is to be ended when they have returned.
  bool leaves_ = false;
  // Calls of the application's callables for updates.
  int telling_updates_ = 0;
  // Grows with each loss.
  unsigned connection_ = 1;
  // Whether this session has asked for an update of the agents, or heard of one, that has not ended.
  bool update_known_ = false;
  // From when to when the latest update is known to have gone on, if its restart was not seen: what
  // was not heard of since may have been swallowed.
  std::optional<TimePoint> updating_since_;
  TimePoint updating_until_;
  bool update_goes_on_ = false;
  bool restart_seen_ = false;
  TimePoint away_since_;
  TimePoint nudged_;
  Loop::TimerId connect_timer_ = 0;
  Loop::TimerId look_timer_ = 0;
  std::map<Id, std::shared_ptr<Entry>> entries_;

  friend class velmora::svcmgr::Session;
  friend struct Inside;
};

// Marks a call of the application: what it finds out is told after it has returned.
struct Inside {
  explicit Inside(Core& c) noexcept : core(c) { ++core.inside_; }
  ~Inside() { --core.inside_; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
  Core& core;
};

// ---- Callables and the loop

template <typename F, typename... Arguments>
void Core::Call(F&& callable, Arguments&&... arguments) noexcept {
  const auto self = shared_from_this();
  const auto on_exception = on_exception_;
#if defined(__cpp_exceptions)
  try {
    callable(std::forward<Arguments>(arguments)...);
  } catch (...) {
    if (on_exception == nullptr || !*on_exception) std::terminate();
    (*on_exception)();
  }
#else
  callable(std::forward<Arguments>(arguments)...);
#endif
}

// Does nothing where the session is closed by then, nor in a child that was forked before.
template <typename F>
Task Core::Here(F function) noexcept {
  return Task::TryMake(
      [weak = weak_from_this(), process = getpid(), function = std::move(function)]() mutable {
        const auto core = weak.lock();
        if (core != nullptr && !core->closed_ && process == getpid()) function(*core);
      });
}

template <typename F>
bool Core::Post(F function) noexcept {
  auto prepared = Prepare(std::move(function));
  if (prepared == nullptr) return false;
  Post(std::move(prepared));
  return true;
}

inline void Core::Post(std::unique_ptr<TaskQueue::Node> prepared) noexcept {
  const std::lock_guard<std::mutex> lock(loop_mutex_);
  if (loop_ == nullptr) return;
  posted_.Push(std::move(prepared));
  ++unannounced_;
  Announce();
}

// Under the mutex: one turn of the main loop for each task. What the loop does not take now, is offered
// with the next look, or call of the application.
inline void Core::Announce() noexcept {
  for (; unannounced_ > 0; --unannounced_) {
    auto turn = Task::TryMake([weak = weak_from_this()] {
      const auto core = weak.lock();
      if (core == nullptr) return;
      std::unique_lock<std::mutex> lock(core->loop_mutex_);
      const auto next = core->posted_.Pop();
      lock.unlock();
      if (next != nullptr) next->task();
    });
    if (!turn || !loop_->Post(std::move(turn))) return;
  }
}

template <typename F>
bool Core::PostLast(F function) noexcept {
  auto task = Here(std::move(function));
  return task && loop_ != nullptr && loop_->PostLast(std::move(task));
}

inline void Core::AnnounceAgain() noexcept {
  const std::lock_guard<std::mutex> lock(loop_mutex_);
  if (loop_ != nullptr) Announce();
}

template <typename F>
Loop::TimerId Core::StartTimer(Milliseconds delay, F function) noexcept {
  auto task = Here(std::move(function));
  if (!task || loop_ == nullptr) return 0;
  return loop_->StartTimer(std::max(delay, Milliseconds(0)), std::move(task));
}

inline void Core::StopTimer(Loop::TimerId& timer) noexcept {
  if (timer != 0 && loop_ != nullptr) loop_->CancelTimer(timer);
  timer = 0;
}

// Visits the entries that there are now; `function` may change the table, and close the session.
template <typename F>
void Core::ForEach(F function) noexcept {
  const Id last = TheRegistry().last_id;
  Id id = 0;
  for (auto next = entries_.upper_bound(id); next != entries_.end() && next->first <= last;
       next = entries_.upper_bound(id)) {
    id = next->first;
    const auto entry = next->second;
    function(entry);
    if (closed_) return;
  }
}

// ---- Opening and closing

inline void Core::Open() {
  {
    Registry& registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    if (registry.pid == getpid() && !registry.core.expired()) {
      state_ = State::kRefused;
      error_ = Error(kSessionExists);
      return;
    }
    if (registry.pid != getpid()) registry.worker = new Worker;
    registry.pid = getpid();
    registry.core = weak_from_this();
  }
  if (!options_.connect) return;
  wanted_ = true;
  state_ = State::kConnecting;
  // Later, so that the application can say first what it wants to hear.
  const auto start = [](Core& core) {
    if (core.wanted_) core.StartConnecting();
  };
  if (!Post(start) || unannounced_ > 0) StartConnecting();
}

inline void Core::Close() noexcept {
  const auto self = shared_from_this();
  const bool ours = state_ != State::kRefused && TheCore().get() == this;
  for (auto& [id, entry] : entries_) {
    StopTimer(entry->limit);
    entry->Cancel();
  }
  StopTimer(connect_timer_);
  StopTimer(look_timer_);
  closed_ = true;
  {
    const std::lock_guard<std::mutex> lock(loop_mutex_);
    loop_ = nullptr;
  }
  if (ours) {
    if (!updates.hearers.empty()) static_cast<void>(updates.unsubscribe());
    if (!models.hearers.empty()) static_cast<void>(models.unsubscribe());
    // With a call under way on another thread the connection has to stay; the next session takes it.
    if (TheRegistry().worker->calls == 0) static_cast<void>(velmora_svcmgr_disconnect());
    const std::lock_guard<std::mutex> lock(TheRegistry().mutex);
    TheRegistry().core.reset();
  }
  // Freed last: what the callables hold may come back here.
  while (posted_.Pop() != nullptr) {
  }
  const auto entries = std::exchange(entries_, {});
  const auto connection_hearers = std::exchange(connections.hearers, {});
  const auto update_hearers = std::exchange(updates.hearers, {});
  const auto model_hearers = std::exchange(models.hearers, {});
  const auto heard = std::exchange(heard_state_, nullptr);
  const auto on_exception = std::exchange(on_exception_, nullptr);
}

// ---- The connection

inline void Core::OnConnection(int result, int state, void*) noexcept {
  const auto core = TheCore();
  if (core == nullptr) return;
  if (core->MustDefer() &&
      core->Post([result, state](Core& later) { later.HearConnection(result, state); }))
    return;
  core->HearConnection(result, state);
}

inline Outcome<void> Core::Connect() {
  if (state_ == State::kRefused) return *error_;
  if (IsParents()) return Error(SVCMGR_ERROR_INVALID_OPERATION);
  if (state_ == State::kConnected || in_connect_) return {};
  const Inside inside(*this);
  AnnounceAgain();
  StartConnecting();
  if (state_ == State::kConnecting || state_ == State::kConnected || state_ == State::kRestarting)
    return {};
  return error_.value_or(Error(kConnectionLost));
}

inline void Core::StartConnecting() noexcept {
  wanted_ = true;
  if (state_ == State::kIdle || state_ == State::kFailed) SetState(State::kConnecting);
  if (closed_) return;
  in_connect_ = true;
  const int code = velmora_svcmgr_connect(OnConnection, nullptr);
  in_connect_ = false;
  FinishConnecting(code);
}

inline void Core::FinishConnecting(int code) noexcept {
  const auto reported = std::exchange(reported_, std::nullopt);
  if (code == SVCMGR_ERROR_ALREADY_CONNECTED) return Return();
  if (code != SVCMGR_ERROR_NONE) {
    const bool stands = reported && reported->second == SVCMGR_CONNECTION_STATE_CONNECTED;
    if (stands) EndConnection();
    // The agent may be on its way back.
    if (state_ == State::kRestarting) return;
    return Fail(State::kFailed, Error(code));
  }
  if (state_ == State::kConnecting && connect_timer_ == 0 && options_.connect_limit != kNoLimit) {
    connect_timer_ = StartTimer(options_.connect_limit, [](Core& core) {
      core.connect_timer_ = 0;
      if (core.state_ == State::kConnecting) core.Fail(State::kFailed, Error(kTimedOut));
    });
  }
  KeepLooking();
  if (reported) Follow(reported->first, reported->second);
}

inline void Core::Disconnect() {
  if (state_ == State::kRefused || IsParents()) return;
  const Inside inside(*this);
  wanted_ = false;
  StopTimer(connect_timer_);
  ++connection_;
  EndConnection();
  error_.reset();
  away_since_ = Now();
  const bool may_come_up = state_ == State::kConnecting || state_ == State::kRestarting;
  SetState(State::kIdle);
  ForEach([this](const std::shared_ptr<Entry>& entry) {
    if (entry->NeedsConnection()) EndLater(entry->id, Error(SVCMGR_ERROR_NOT_CONNECTED));
  });
  if (may_come_up) KeepLooking();
}

inline void Core::HearConnection(int result, int state) noexcept {
  const auto self = shared_from_this();
  if (closed_) return;
  const ConnectionReport report = {result, state};
  if (in_connect_) {
    reported_ = {result, state};
    static_cast<void>(Post([report](Core& core) { core.Tell(core.connections, report); }));
    return;
  }
  Follow(result, state);
  if (!closed_) Tell(connections, report);
}

inline void Core::Follow(int result, int state) noexcept {
  switch (state) {
    case SVCMGR_CONNECTION_STATE_CONNECTED:
      // Requests that went over the connection before this one are lost, if there was one.
      if (state_ == State::kConnected) Lose(true);
      if (!closed_) Return();
      break;
    case SVCMGR_CONNECTION_STATE_REJECTED:
      Fail(State::kRejected,
           Error(result == SVCMGR_ERROR_NONE ? SVCMGR_ERROR_PERMISSION_DENIED : result));
      break;
    default:
      if (state_ != State::kIdle) Lose(update_known_);
  }
}

// Each change is told, in its order, and none inside a call of the application.
inline void Core::SetState(State state) noexcept {
  if (state == state_) return;
  state_ = state;
  const bool waits = inside_ > 0 || untold_ > 0;
  if (waits && Post([state](Core& core) {
        --core.untold_;
        core.TellState(state);
      }))
    ++untold_;
  else
    TellState(state);
}

inline void Core::TellState(State state) noexcept {
  const auto heard = heard_state_;
  if (heard != nullptr && *heard) Call(*heard, state);
}

inline void Core::Fail(State state, Error error) noexcept {
  StopTimer(connect_timer_);
  error_ = error;
  ++connection_;
  SetState(state);
  if (!closed_) EndAll(error, true);
  if (!closed_) KeepLooking();
}

// The connection is gone. `returns`: the agent replaces itself, and is expected back.
inline void Core::Lose(bool returns) noexcept {
  ++connection_;
  away_since_ = nudged_ = Now();
  updating_since_.reset();
  restart_seen_ = true;
  error_ = Error(kConnectionLost);
  StopTimer(connect_timer_);
  ForEach([this, returns](const std::shared_ptr<Entry>& entry) { LoseEntry(entry, returns); });
  if (!closed_) SetState(returns ? State::kRestarting : State::kLost);
  if (!closed_) KeepLooking();
}

inline void Core::LoseEntry(const std::shared_ptr<Entry>& entry, bool returns) noexcept {
  using Stage = Entry::Stage;
  if (!entry->NeedsConnection()) return;
  // A call that blocks returns by itself.
  if (entry->stage == Stage::kSent && !entry->IsAnsweredByCallback()) return;
  const bool was_sent = entry->stage == Stage::kSent || entry->stage == Stage::kDoubtful;
  if (!was_sent && entry->stage != Stage::kHeld) return;
  const Resend resend = entry->ResendAfter(options_);
  const bool again = resend != Resend::kNever;
  if ((returns && (!was_sent || again)) || resend == Resend::kAfterAnyLoss)
    entry->stage = Stage::kHeld;
  else
    EndLater(entry->id, Error(kConnectionLost));
}

// The connection stands.
inline void Core::Return() noexcept {
  StopTimer(connect_timer_);
  if (!wanted_) return EndConnection();
  error_.reset();
  update_known_ = false;
  SetState(State::kConnected);
  if (!closed_) SendHeld();
}

inline void Core::SendHeld() noexcept {
  ForEach([this](const std::shared_ptr<Entry>& entry) {
    if (entry->stage == Entry::Stage::kHeld && MaySend()) SendNow(entry);
  });
}

// Not while a call is under way on another thread, which may fail in ways that are up to the platform.
inline void Core::EndConnection() noexcept {
  leaves_ = blocking_ > 0;
  if (!leaves_) static_cast<void>(velmora_svcmgr_disconnect());
}

inline void Core::EndBlocking() noexcept {
  if (--blocking_ > 0) return;
  if (std::exchange(leaves_, false) && !wanted_) static_cast<void>(velmora_svcmgr_disconnect());
  SendHeld();
}

inline void Core::EndAll(Error error, bool held_too) noexcept {
  ForEach([this, error, held_too](const std::shared_ptr<Entry>& entry) {
    if (!entry->NeedsConnection()) return;
    if (held_too || entry->stage != Entry::Stage::kHeld) EndLater(entry->id, error);
  });
}

// ---- Looking: what nobody reports

inline bool Core::MustLook() const noexcept {
  if (state_ == State::kConnecting || state_ == State::kRestarting || unannounced_ > 0) return true;
  // The C interface may connect again by itself, and not say so.
  if (state_ == State::kLost || state_ == State::kFailed) return wanted_;
  // Left while a connection was coming up.
  if (state_ == State::kIdle) return !IsOver(Now() - away_since_, options_.restart_patience);
  return std::any_of(entries_.begin(), entries_.end(), [](const auto& each) {
    const auto stage = each.second->stage;
    return stage == Entry::Stage::kSent || stage == Entry::Stage::kEnding;
  });
}

inline void Core::KeepLooking() noexcept {
  if (look_timer_ != 0 || closed_ || !MustLook()) return;
  const bool is_away = state_ == State::kLost || state_ == State::kFailed;
  look_timer_ = StartTimer(is_away ? kLookWhileAwayEvery : kLookEvery, [](Core& core) {
    core.look_timer_ = 0;
    core.OnLook();
  });
}

inline void Core::OnLook() noexcept {
  if (IsParents()) return;
  AnnounceAgain();
  Look();
  if (closed_) return;
  LookAtEntries();
  if (!closed_) KeepLooking();
}

inline void Core::Look() noexcept {
  if (in_connect_) return;
  bool updating = false;
  const int code = velmora_svcmgr_is_being_updated(&updating);
  if (code == SVCMGR_ERROR_NONE) {
    NoteUpdate(updating);
    if (state_ != State::kConnected) Return();
    return;
  }
  if (code == SVCMGR_ERROR_NOT_CONNECTED && state_ == State::kConnected) Lose(true);
  if (!closed_ && state_ == State::kRestarting) LookAtRestart(Now());
}

// An update has one restart: when that was seen, nothing more is swallowed.
inline void Core::NoteUpdate(bool goes_on) noexcept {
  const bool went_on = std::exchange(update_goes_on_, goes_on);
  if ((goes_on || went_on) && !restart_seen_) {
    if (!went_on || !updating_since_) updating_since_ = Now();
    updating_until_ = Now();
  }
  if (!goes_on) restart_seen_ = false;
}

inline void Core::LookAtRestart(TimePoint now) noexcept {
  if (IsOver(now - away_since_, options_.restart_patience)) return Lose(false);
  // Helps where the library could not start its own reconnection, and does nothing elsewhere.
  if (now - nudged_ < kNudgeEvery || blocking_ > 0) return;
  nudged_ = now;
  StartConnecting();
}

inline void Core::LookAtEntries() noexcept {
  const auto now = Now();
  ForEach([this, now](const std::shared_ptr<Entry>& entry) {
    if (entry->stage == Entry::Stage::kEnding) return entry->End(*this, entry->last_word);
    if (entry->stage != Entry::Stage::kSent) return;
    entry->Look(*this, now);
    if (closed_ || entry->stage != Entry::Stage::kSent || !entry->IsAnsweredByCallback()) return;
    if (!MayBeSwallowed(*entry)) return;
    const auto silence = now - std::max(entry->heard, *updating_since_);
    const bool again = entry->ResendAfter(options_) != Resend::kNever;
    if (entry->IsQuery() && again) {
      if (silence >= kAskAgainAfter * entry->times_sent && MaySend()) SendNow(entry);
    } else if (IsOver(silence, again ? PatienceWith(*entry) : options_.restart_patience)) {
      if (!again)
        EndLater(entry->id, Error(kConnectionLost));
      else
        static_cast<void>(SendAgain(entry->id));
    }
  });
}

// What was heard of until the announcement, and not since, is probably lost. What has begun after it may
// just take its time, and so may what goes on beside an update.
inline Milliseconds Core::PatienceWith(const Entry& entry) const noexcept {
  const bool fell_silent = entry.heard < *updating_since_ && !update_known_;
  return fell_silent ? std::min(kAskForWorkAgainAfter, options_.restart_patience)
                     : options_.restart_patience;
}

// The agent has announced that it replaces itself: what is silent since may be lost already.
inline bool Core::MayBeSwallowed(const Entry& entry) const noexcept {
  return updating_since_ && entry.heard <= updating_until_ && state_ == State::kConnected;
}

inline bool Core::SendAgain(Id id) noexcept {
  const auto found = entries_.find(id);
  if (found == entries_.end() || !MayBeSwallowed(*found->second) || !MaySend()) return false;
  const auto entry = found->second;
  if (entry->ResendAfter(options_) == Resend::kNever) return false;
  entry->asked_again = true;
  SendNow(entry);
  return true;
}

// ---- Entries

inline void Core::Add(const std::shared_ptr<Entry>& entry, Milliseconds limit) {
  entry->id = ++TheRegistry().last_id;
  entries_.emplace(entry->id, entry);
  const Inside inside(*this);
  AnnounceAgain();
  if (limit != kNoLimit && state_ != State::kRefused) {
    entry->limit = StartTimer(limit, [id = entry->id](Core& core) {
      Entry* const late = core.Find(id);
      if (late == nullptr) return;
      late->limit = 0;
      const auto keep = core.entries_[id];
      keep->TimeIsUp(core);
    });
    // A limit that cannot be kept must not be taken for one.
    if (entry->limit == 0) return EndLater(entry->id, Error(SVCMGR_ERROR_OUT_OF_MEMORY));
  }
  Submit(entry);
}

// Sends an entry, or lets it wait, or ends it, as the state says.
inline void Core::Submit(const std::shared_ptr<Entry>& entry) noexcept {
  if (state_ == State::kRefused) return EndLater(entry->id, *error_);
  if (IsParents()) return EndLater(entry->id, Error(SVCMGR_ERROR_NOT_CONNECTED));
  if (!entry->NeedsConnection()) return SendNow(entry);
  // Nobody reports every loss and every return.
  if (state_ != State::kConnecting && wanted_) Look();
  if (closed_ || entry->stage != Entry::Stage::kHeld) return;
  switch (state_) {
    case State::kConnected:
      if (MaySend()) SendNow(entry);
      return;
    case State::kConnecting:
    case State::kRestarting:
      return;
    case State::kLost:
      if (entry->ResendAfter(options_) == Resend::kAfterAnyLoss) return;
      return EndLater(entry->id, Error(kConnectionLost));
    default:
      return EndLater(entry->id, error_.value_or(Error(SVCMGR_ERROR_NOT_CONNECTED)));
  }
}

inline void Core::SendNow(const std::shared_ptr<Entry>& entry) noexcept {
  entry->stage = Entry::Stage::kSent;
  entry->connection = connection_;
  entry->heard = Now();
  ++entry->times_sent;
  ++sending_;
  const int code = entry->Send(*this);
  --sending_;
  if (closed_ || entry->stage != Entry::Stage::kSent) return;
  if (code == SVCMGR_ERROR_INVALID_OPERATION || code == SVCMGR_ERROR_NOT_CONNECTED)
    return Doubt(entry->id, Error(code));
  if (code != SVCMGR_ERROR_NONE) return EndLater(entry->id, Error(code));
  KeepLooking();
}

// A call that fails because the agent died may return before the loss is known. What is ready in the
// main loop by now has run when the second of two tasks runs that were posted one after the other: a
// platform may hold back the news of a loss until nothing else is ready.
inline void Core::Doubt(Id id, Error error) noexcept {
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  const auto entry = found->second;
  entry->stage = Entry::Stage::kDoubtful;
  if (entry->connection != connection_) {
    LoseEntry(entry, state_ == State::kRestarting || state_ == State::kConnected);
    if (entry->stage == Entry::Stage::kHeld && MaySend()) SendNow(entry);
    return;
  }
  const auto decide = [id, error](Core& core) {
    Entry* const doubtful = core.Find(id);
    if (doubtful == nullptr || doubtful->stage != Entry::Stage::kDoubtful) return;
    core.Look();
    if (core.closed_) return;
    Entry* const still = core.Find(id);
    if (still != nullptr && still->stage == Entry::Stage::kDoubtful) core.EndLater(id, error);
  };
  if (!PostLast([decide](Core& core) {
        if (!core.PostLast(decide)) decide(core);
      }))
    EndLater(id, error);
}

inline std::shared_ptr<Entry> Core::Take(Id id) noexcept {
  const auto found = entries_.find(id);
  if (found == entries_.end()) return nullptr;
  std::shared_ptr<Entry> entry = std::move(found->second);
  entries_.erase(found);
  entry->stage = Entry::Stage::kOver;
  StopTimer(entry->limit);
  return entry;
}

inline void Core::EndLater(Id id, Error error) noexcept {
  Entry* const entry = Find(id);
  if (entry == nullptr || entry->stage == Entry::Stage::kEnding) return;
  entry->stage = Entry::Stage::kEnding;
  entry->last_word = error;
  entry->Cancel();
  const auto end = [id](Core& core) {
    // Held here: the last word takes it out of the table.
    const auto found = core.entries_.find(id);
    if (found == core.entries_.end()) return;
    const auto keep = found->second;
    keep->End(core, keep->last_word);
  };
  if (Post(end) && unannounced_ == 0) return;
  if (inside_ == 0 && sending_ == 0) return end(*this);
  KeepLooking();
}

inline void Core::Remove(Id id) noexcept {
  const auto self = shared_from_this();
  const auto entry = Take(id);
  if (entry != nullptr) entry->Release(*this);
  const auto forget = [this, id](auto& audience) {
    const auto found = audience.hearers.find(id);
    if (found == audience.hearers.end()) return;
    const auto hearer = std::move(found->second);
    audience.hearers.erase(found);
    if (audience.hearers.empty() && !closed_ && !IsParents()) static_cast<void>(audience.unsubscribe());
  };
  forget(connections);
  forget(updates);
  forget(models);
}

inline void Core::HearStates(Callable<void(State)> heard) {
  const auto former =
      std::exchange(heard_state_, std::make_shared<Callable<void(State)>>(std::move(heard)));
}

// ---- Events

template <typename Status>
Outcome<Id> Core::Subscribe(Audience<Status>& audience, Callable<void(Status)> heard) {
  if (state_ == State::kRefused) return *error_;
  if (IsParents()) return Error(SVCMGR_ERROR_INVALID_OPERATION);
  const Id id = ++TheRegistry().last_id;
  auto hearer = std::make_shared<Callable<void(Status)>>(std::move(heard));
  const bool first = audience.hearers.empty();
  audience.hearers.emplace(id, std::move(hearer));
  // An event that comes inside is told afterwards.
  ++sending_;
  const int code = first ? audience.subscribe() : SVCMGR_ERROR_NONE;
  --sending_;
  if (code == SVCMGR_ERROR_NONE) return id;
  audience.hearers.erase(id);
  return Error(code);
}

inline int Core::SubscribeToUpdates() {
  return velmora_svcmgr_set_update_status_cb(OnUpdateStatus, nullptr);
}

inline int Core::SubscribeToModels() {
  return velmora_svcmgr_ai_register_status_cb(OnModelStatus, nullptr);
}

inline void Core::OnUpdateStatus(int status, void*) noexcept {
  const auto core = TheCore();
  if (core == nullptr) return;
  if (core->MustDefer() && core->Post([status](Core& later) { later.HearUpdate(status); })) return;
  core->HearUpdate(status);
}

inline void Core::OnModelStatus(int, int status, void*) noexcept {
  const auto core = TheCore();
  if (core == nullptr) return;
  if (core->MustDefer() && core->Post([status](Core& later) { later.HearModels(status); })) return;
  core->HearModels(status);
}

inline void Core::HearUpdate(int status) noexcept {
  const auto self = shared_from_this();
  update_known_ = status == SVCMGR_UPDATE_STATUS_STARTED;
  // Also its end tells of an update, whose beginning nobody may have seen.
  NoteUpdate(true);
  if (!update_known_) NoteUpdate(false);
  ++telling_updates_;
  Tell(updates, static_cast<UpdateStatus>(status));
  --telling_updates_;
}

inline void Core::HearModels(int status) noexcept {
  const auto self = shared_from_this();
  Tell(models, static_cast<ModelStatus>(status));
}

// Those who hear of it by now; each may end its subscription, that of another, and the session.
template <typename Status>
void Core::Tell(Audience<Status>& audience, Status status) noexcept {
  const Id last = TheRegistry().last_id;
  Id id = 0;
  for (auto next = audience.hearers.upper_bound(id);
       next != audience.hearers.end() && next->first <= last;
       next = audience.hearers.upper_bound(id)) {
    id = next->first;
    const auto hearer = next->second;
    if (*hearer) Call(*hearer, status);
  }
}

// ---- What can be asked

// A request whose answer is a list of models.
struct Query final : Entry {
  using Done = Callable<void(Outcome<ModelList>)>;
  using Start = Callable<int(velmora_svcmgr_ai_model_list_cb, void*)>;

  Query(Start s, Done d) : start(std::move(s)), done(std::move(d)) {}

  int Send(Core&) noexcept override { return start(OnAnswer, ToUserData(id)); }
  void End(Core& core, Error error) noexcept override { Finish(core, error); }
  bool IsQuery() const noexcept override { return true; }

  void Finish(Core& core, Outcome<ModelList> outcome) noexcept {
    const auto self = core.Take(id);
    if (self == nullptr) return;
    Done last = std::move(done);
    if (last) core.Call(last, std::move(outcome));
  }

  static void OnAnswer(int error, velmora_svcmgr_ai_model_list_h raw, void* user_data) noexcept;
  static void Answer(Core& core, Id id, int error, ModelList list) noexcept;

  Start start;
  Done done;
};

inline void Query::OnAnswer(int error, velmora_svcmgr_ai_model_list_h raw,
                            void* user_data) noexcept {
  ModelList list(raw);
  const Id id = ToId(user_data);
  const auto core = TheCore();
  if (core == nullptr) return;
  if (!core->MustDefer()) return Answer(*core, id, error, std::move(list));
  const bool posted = core->Post([id, error, held = std::move(list)](Core& later) mutable {
    Answer(later, id, error, std::move(held));
  });
  if (!posted) core->Swallow(id);
}

// An answer to a request that is over, because it was answered before or released, finds nothing.
inline void Query::Answer(Core& core, Id id, int error, ModelList list) noexcept {
  Entry* const entry = core.Find(id);
  if (entry == nullptr) return;
  auto* const query = static_cast<Query*>(entry);
  if (error != SVCMGR_ERROR_NONE) return query->Finish(core, Error(error));
  if (list.handle() == nullptr) return query->Finish(core, Error(SVCMGR_ERROR_OUT_OF_MEMORY));
  query->Finish(core, std::move(list));
}

// What kind of call a job is.
struct JobKind {
  bool needs_connection;
  bool is_query;
  bool asks_for_update;
};

// A call that blocks, made on the worker's thread.
template <typename T>
struct Job final : Entry {
  using Call = Callable<Outcome<T>()>;
  using Done = Callable<void(Outcome<T>)>;

  // Shared with the thread, which may be inside the call for longer than anybody waits for it.
  struct Shared {
    explicit Shared(Call c) : call(std::move(c)) {}
    Call call;
    std::atomic<bool> released{false};
    Outcome<T> outcome = Error(kTimedOut);
  };

  Job(JobKind k, Call call, Done d)
      : kind(k), shared(std::make_shared<Shared>(std::move(call))), done(std::move(d)) {}

  int Send(Core& core) noexcept override;
  void End(Core& core, Error error) noexcept override { Finish(core, error); }
  bool IsQuery() const noexcept override { return kind.is_query; }
  bool NeedsConnection() const noexcept override { return kind.needs_connection; }
  bool IsAnsweredByCallback() const noexcept override { return false; }
  void Cancel() noexcept override { shared->released = true; }
  void Release(Core&) noexcept override { Cancel(); }

  void Finish(Core& core, Outcome<T> outcome) noexcept {
    const auto self = core.Take(id);
    if (self == nullptr) return;
    Cancel();
    Done last = std::move(done);
    if (last) core.Call(last, std::move(outcome));
  }

  // On the main-loop thread, when the call has returned, or was not made any more.
  static void Returned(Core& core, Id id, const JobKind& kind, Outcome<T> outcome) noexcept {
    if (kind.needs_connection) core.EndBlocking();
    if (!core.closed()) Answer(core, id, std::move(outcome));
  }

  static void Answer(Core& core, Id id, Outcome<T> outcome) noexcept {
    Entry* const entry = core.Find(id);
    if (entry == nullptr || entry->stage == Stage::kEnding) return;
    auto* const job = static_cast<Job*>(entry);
    if (!outcome && job->kind.needs_connection) return core.Doubt(id, outcome.error());
    if (job->kind.asks_for_update) core.ExpectUpdate();
    job->Finish(core, std::move(outcome));
  }

  const JobKind kind;
  const std::shared_ptr<Shared> shared;
  Done done;
};

// A call that memory does not suffice for ends with an error, like others.
template <typename T>
Outcome<T> Guarded(Callable<Outcome<T>()>& call) noexcept {
#if defined(__cpp_exceptions)
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return Error(SVCMGR_ERROR_OUT_OF_MEMORY);
  }
#else
  return call();
#endif
}

template <typename T>
int Job<T>::Send(Core& core) noexcept {
  if (!shared->call) return SVCMGR_ERROR_INVALID_PARAMETER;
  Worker& worker = *TheRegistry().worker;
  // Before the call: its answer is not to be lost for a lack of memory.
  auto returned = core.Prepare([key = id, what = kind, keep = shared](Core& later) {
    Returned(later, key, what, std::move(keep->outcome));
  });
  if (returned == nullptr) return SVCMGR_ERROR_OUT_OF_MEMORY;
  auto task = Task::TryMake([weak = core.weak_from_this(), keep = shared, &calls = worker.calls,
                             answer = std::move(returned)]() mutable {
    // In this order, so that either this thread sees the release, or who releases sees the call.
    ++calls;
    if (!keep->released) keep->outcome = Guarded(keep->call);
    --calls;
    if (const auto session = weak.lock()) session->Post(std::move(answer));
  });
  if (!task) return SVCMGR_ERROR_OUT_OF_MEMORY;
  if (kind.needs_connection) core.BeginBlocking();
  auto start = [key = id, what = kind, &worker, held = std::move(task)](Core& later) mutable {
    if (worker.Run(std::move(held))) return;
    later.EndLater(key, Error(SVCMGR_ERROR_OUT_OF_MEMORY));
    if (what.needs_connection) later.EndBlocking();
  };
  if (core.IsTellingUpdates() && kind.asks_for_update) {
    if (core.Post(std::move(start))) return SVCMGR_ERROR_NONE;
    if (kind.needs_connection) core.EndBlocking();
    return SVCMGR_ERROR_OUT_OF_MEMORY;
  }
  start(core);
  return SVCMGR_ERROR_NONE;
}

// Work on models, from the request to its end.
struct Work final : Entry {
  using Request = int (*)(velmora_svcmgr_ai_model_list_h, velmora_svcmgr_ai_progress_cb, void*);
  using OnProgress = Callable<void(const Progress&)>;
  using Done = Callable<void(Outcome<void>)>;

  Work(Request r, std::vector<ModelName> names, OnProgress p, Done d, const WorkOptions& options,
       std::shared_ptr<WorkTracker> t)
      : request(r),
        models(std::move(names)),
        tracker(std::move(t)),
        on_progress(std::make_shared<OnProgress>(std::move(p))),
        done(std::move(d)),
        silence_limit(options.silence_limit),
        resend(options.resend) {}

  int Send(Core& core) noexcept override {
    const Outcome<ModelList> list = ModelList::Make(models);
    if (!list) return list.error().code();
    tracker->Begin(core.Now());
    return request(list->handle(), OnReport, ToUserData(id));
  }
  void End(Core& core, Error error) noexcept override { Finish(core, error); }
  void TimeIsUp(Core& core) noexcept override {
    if (!Judge(core, core.Now(), true)) Finish(core, Error(kTimedOut));
  }
  void Look(Core& core, TimePoint now) noexcept override {
    if (Judge(core, now, false)) return;
    if (!IsOver(tracker->Silence(now), silence_limit)) return;
    if (asked_again || !core.SendAgain(id)) TimeIsUp(core);
  }
  void Release(Core& core) noexcept override {
    core.Remove(events);
    on_progress = nullptr;
  }
  Resend ResendAfter(const Options&) const noexcept override { return resend; }

  // True if the work is over.
  bool Judge(Core& core, TimePoint now, bool time_is_up) noexcept {
    const Id key = id;
    core.Call([&, kept = tracker] { kept->Judge(now, time_is_up); });
    // Its rule may have thrown, and on_exception have released it.
    if (core.closed() || core.Find(key) == nullptr) return true;
    const Verdict verdict = tracker->verdict();
    if (verdict == Verdict::kGoesOn) return false;
    Finish(core, verdict == Verdict::kDone ? Outcome<void>() : tracker->failure());
    return true;
  }

  void Finish(Core& core, Outcome<void> outcome) noexcept {
    const auto self = core.Take(id);
    if (self == nullptr) return;
    Release(core);
    Done last = std::move(done);
    if (last) core.Call(last, outcome);
  }

  static void OnReport(int error, velmora_svcmgr_ai_progress_h raw, void* user_data) noexcept;
  static void Report(Core& core, Id id, const WorkReport& report) noexcept;
  static void Event(Core& core, Id id, ModelStatus status) noexcept;

  const Request request;
  const std::vector<ModelName> models;
  const std::shared_ptr<WorkTracker> tracker;
  std::shared_ptr<OnProgress> on_progress;
  Done done;
  const Milliseconds silence_limit;
  const Resend resend;
  // The subscription to events.
  Id events = 0;
};

inline void Work::OnReport(int error, velmora_svcmgr_ai_progress_h raw, void* user_data) noexcept {
  const WorkReport report = WorkReport::Take(error, raw);
  const Id id = ToId(user_data);
  const auto core = TheCore();
  if (core == nullptr) return;
  if (core->MustDefer() && core->Post([id, report](Core& later) { Report(later, id, report); }))
    return;
  Report(*core, id, report);
}

inline void Work::Report(Core& core, Id id, const WorkReport& report) noexcept {
  Entry* const entry = core.Find(id);
  if (entry == nullptr) return;
  auto* const work = static_cast<Work*>(entry);
  const auto now = core.Now();
  const auto tracker = work->tracker;
  work->heard = now;
  work->asked_again = false;
  core.Call([&] { tracker->Take(report, now); });
  if (core.closed() || core.Find(id) != entry) return;
  const auto on_progress = work->on_progress;
  if (on_progress != nullptr && *on_progress) core.Call(*on_progress, tracker->progress());
  // Released, or ended, inside the callable?
  if (core.closed() || core.Find(id) != entry) return;
  work->Judge(core, now, false);
}

inline void Work::Event(Core& core, Id id, ModelStatus status) noexcept {
  Entry* const entry = core.Find(id);
  // What happened before the request does not belong to it.
  if (entry == nullptr || entry->stage != Stage::kSent) return;
  auto* const work = static_cast<Work*>(entry);
  core.Call([&, kept = work->tracker] { kept->TakeStatus(static_cast<int>(status), core.Now()); });
  if (core.closed() || core.Find(id) != entry) return;
  work->Judge(core, core.Now(), false);
}

}  // namespace detail

// ---- Tokens -------------------------------------------------------------------------------------

/**
 * Keeps a request, or a subscription, alive. Moved, never copied. When it is destroyed, or something
 * else is moved into it, what it stands for is released. Outliving the session does no harm.
 */
class [[nodiscard]] Token {
 public:
  Token() noexcept = default;
  /** Takes over what the other one stands for. */
  Token(Token&& other) noexcept : core_(std::move(other.core_)), id_(std::exchange(other.id_, 0)) {}
  /** Releases what this one stands for, and takes over the other's. */
  Token& operator=(Token&& other) noexcept {
    if (this == &other) return *this;
    Token former(std::move(*this));
    core_ = std::move(other.core_);
    id_ = std::exchange(other.id_, 0);
    return *this;
  }
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;
  ~Token() { Release(); }

  /** From now on the callable is not called; what it holds is freed. Does nothing when it is over. */
  void Release() noexcept {
    const auto core = std::exchange(core_, {}).lock();
    const detail::Id id = std::exchange(id_, 0);
    if (core != nullptr) core->Remove(id);
  }

  /** Lets it go on for as long as the session lives. */
  void Detach() noexcept {
    core_.reset();
    id_ = 0;
  }

  /** Whether it is a request that was handed to the agent, over a connection that stands as far as is
   *  known, and that is not over. */
  bool sent() const noexcept {
    const auto core = core_.lock();
    return core != nullptr && core->IsSent(id_);
  }

  /** Whether the callable may still be called. */
  bool pending() const noexcept {
    const auto core = core_.lock();
    return core != nullptr && core->Has(id_);
  }

 private:
  friend class Session;
  friend class ModelWork;
  Token(std::weak_ptr<detail::Core> core, detail::Id id) noexcept
      : core_(std::move(core)), id_(id) {}

  std::weak_ptr<detail::Core> core_;
  detail::Id id_ = 0;
};

/**
 * An update or uninstallation of models, from the request to its one final word:
 *
 *     success                it is done
 *     the agent's code       it has failed; kWorkFailed if the agent gave no code
 *     kConnectionLost        what becomes of it is not known
 *     kTimedOut              likewise
 *     another code           it could not be asked for
 *
 * A token as well: when it is destroyed, nothing of it runs any more, although the agent goes on.
 */
class [[nodiscard]] ModelWork {
 public:
  ModelWork() noexcept = default;

  /** How far it has come; all is 0 for an object that stands for no work. Stays readable when the
   *  work is over: 100 percent if it is done. */
  Progress progress() const noexcept { return tracker_ ? tracker_->progress() : Progress(); }
  /** Whether the agent has been asked for it, over a connection that stands as far as is known, and it
   *  is not over. */
  bool asked() const noexcept { return token_.sent(); }
  /**
   * Ends it now, because the application has waited long enough by a measure of its own: the end rule
   * is asked for the last time, as if WorkOptions::limit were over. Nothing of it runs any more; the
   * final word is what is returned here, kGoesOn where the end is not known.
   */
  Verdict TimeIsUp() noexcept;
  /** Whether events decided how it ended, rather than a message. */
  bool ended_by_events() const noexcept { return tracker_ && tracker_->ended_by_events(); }
  /** What the end rule sees, for pictures of the progress; null for an object that stands for no
   *  work. Shared, and not to be changed. */
  std::shared_ptr<const WorkTracker> tracker() const noexcept { return tracker_; }

  /** As for Token. */
  void Release() noexcept { token_.Release(); }
  /** As for Token. */
  void Detach() noexcept { token_.Detach(); }
  /** As for Token. */
  bool pending() const noexcept { return token_.pending(); }

 private:
  friend class Session;
  ModelWork(Token token, std::shared_ptr<WorkTracker> tracker) noexcept
      : token_(std::move(token)), tracker_(std::move(tracker)) {}

  Token token_;
  std::shared_ptr<WorkTracker> tracker_;
};

inline Verdict ModelWork::TimeIsUp() noexcept {
  if (tracker_ == nullptr) return Verdict::kGoesOn;
  const auto core = token_.core_.lock();
  const auto tracker = tracker_;
  if (core != nullptr && token_.pending()) core->Call([&] { tracker->Judge(core->Now(), true); });
  Release();
  return tracker->verdict();
}

// ---- The session --------------------------------------------------------------------------------

/**
 * The application's stay with the agent: a connection that is kept up, and all that goes over it.
 * There is one at a time in a process; the rules are at the top of this file.
 *
 * Requests may be made at any time: those made while the session connects, or while the agent
 * replaces itself, wait for the connection. The time limit of a request counts from the call.
 *
 * Functions that make a request return at once. They throw nothing but std::bad_alloc, and then
 * nothing was asked.
 */
class Session {
 public:
  /** Gets models, or why there are none. */
  using ModelsDone = Callable<void(Outcome<ModelList>)>;
  /** Gets a text, or why there is none. */
  using TextDone = Callable<void(Outcome<std::string>)>;
  /** Gets an API level, or why there is none. */
  using LevelDone = Callable<void(Outcome<int>)>;
  /** Gets success, or why there is none. */
  using Done = Callable<void(Outcome<void>)>;

  /**
   * Connects, unless the options say otherwise.
   *
   * @param loop     Must outlive the session.
   * @param options  How it behaves.
   */
  explicit Session(Loop& loop, Options options = {})
      : core_(std::make_shared<detail::Core>(loop, std::move(options))) {
    core_->Open();
  }
  /** Frees all callables, ends subscriptions and disconnects; a connection that a blocking call is
   *  using stays, for the next session. May be called inside any callable. */
  ~Session() { core_->Close(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The connection.

  /** What has become of it, as far as is known; a callable of OnState may be a change behind. */
  State state() const noexcept { return core_->state(); }
  /** Why the connection does not stand; absent where it stands, or nothing has failed. */
  std::optional<Error> error() const noexcept { return core_->error(); }
  /** Sets who hears of changes of the state, in place of who did. Null: nobody. */
  void OnState(Callable<void(State)> changed) {
    const auto core = core_;
    core->HearStates(std::move(changed));
  }

  /**
   * Connects, which a session does by itself unless Options say otherwise: after Disconnect, or after
   * a failure. Success means that an attempt is under way, or that the connection stands; OnState
   * tells more. After a loss or a refusal nothing can be started (trap 1), and the reason is returned.
   */
  Outcome<void> Connect() {
    const auto core = core_;
    return core->Connect();
  }
  /** Disconnects, as soon as no call that blocks uses the connection. Requests that are under way end
   *  with SVCMGR_ERROR_NOT_CONNECTED; subscriptions stay. */
  void Disconnect() {
    const auto core = core_;
    core->Disconnect();
  }

  // Queries. Each is answered once; an error of the agent, too, is an answer.

  /** The models that the application may use; most agents send no descriptions here. */
  Token Models(ModelsDone done, Milliseconds limit = kNoLimit) {
    return Ask(velmora_svcmgr_ai_request_usable_model_list, std::move(done), limit);
  }
  /** The same with descriptions. */
  Token ModelsWithDescriptions(ModelsDone done, Milliseconds limit = kNoLimit) {
    return Ask(velmora_svcmgr_ai_request_usable_model_list_with_description, std::move(done),
               limit);
  }
  /** The models that the application which declares this category may use;
   *  SVCMGR_ERROR_INVALID_PARAMETER if none does. */
  Token ModelsOfCategory(std::string category, ModelsDone done, Milliseconds limit = kNoLimit) {
    return Ask(
        [name = std::move(category)](velmora_svcmgr_ai_model_list_cb answered, void* user_data) {
          return velmora_svcmgr_ai_request_usable_model_list_with_category(answered, name.c_str(),
                                                                           user_data);
        },
        std::move(done), limit);
  }
  /** The available versions of a model, one entry for each. */
  Token Versions(ModelName model, ModelsDone done, Milliseconds limit = kNoLimit) {
    return Ask(
        [name = std::move(model)](velmora_svcmgr_ai_model_list_cb answered, void* user_data) {
          const Outcome<Model> info = name.Make();
          if (!info) return info.error().code();
          return velmora_svcmgr_ai_request_model_version_list(info->handle(), answered, user_data);
        },
        std::move(done), limit);
  }

  // Queries that block in the C interface: made on a thread of the session's own, one after the
  // other. Meanwhile every request that needs the connection waits for its turn; time limits go on.
  // One that the agent does not answer keeps them waiting, also after its own time limit, and so does
  // a call of RunBlocking that is before it. While one is under way the agent should not replace itself: how well such a call fails is
  // up to the platform.

  /** The agent's licence text; kNoLicense if it has none, or could not be asked. */
  Token License(TextDone done, Milliseconds limit = kNoLimit);
  /** The API level that the agent implements, as it reports it. */
  Token AgentApiLevel(LevelDone done, Milliseconds limit = kNoLimit);
  /** The API level that the application was built against; needs no connection. Ends the process by
   *  abort() if the platform gives no path of the application's resources. */
  Token ClientApiLevel(LevelDone done, Milliseconds limit = kNoLimit);

  /**
   * Runs any call that blocks on the same thread, when its turn comes, and `done` on the main loop's.
   *
   * @param call  Runs on another thread, and may be destroyed there; must not use the session, and
   *              must throw nothing but std::bad_alloc, which ends it with SVCMGR_ERROR_OUT_OF_MEMORY.
   *              Requests of the session do not wait for it, so that it must not ask the agent for
   *              anything that takes long. It is not run any more if the token is released before its turn.
   * @param done  Gets what `call` returned, or why it was not run.
   * @param limit How long that may take, waiting for its turn included.
   */
  template <typename T>
  Token RunBlocking(Callable<Outcome<T>()> call, Callable<void(Outcome<T>)> done,
                    Milliseconds limit = kNoLimit) {
    return Block<T>({false, false, false}, std::move(call), std::move(done), limit);
  }
  /** The same; what `call` returns, an Outcome, says for which type. */
  template <typename F, typename T = typename std::invoke_result_t<std::decay_t<F>&>::value_type>
  Token RunBlocking(F&& call, Callable<void(std::invoke_result_t<std::decay_t<F>&>)> done,
                    Milliseconds limit = kNoLimit) {
    return Block<T>({false, false, false}, std::forward<F>(call), std::move(done), limit);
  }

  // Updates of the agents.

  /** Asks the agent to update all agents, itself included. Success: the agent has taken the request;
   *  OnUpdateStatus tells what becomes of it. kNotTaken if the agent does not say why it refuses. */
  Token RequestUpdate(Done done, Milliseconds limit = kNoLimit);
  /** The same for the named agents. Success: the agent was asked; whether it will do so, only
   *  OnUpdateStatus tells. */
  Token RequestUpdate(const std::vector<std::string>& agents, Done done,
                      Milliseconds limit = kNoLimit);
  /** Whether an update is under way, as far as this process has heard; hides one after a request
   *  (trap 11). Needs the connection. */
  Outcome<bool> IsBeingUpdated() const noexcept {
    if (state() == State::kRefused) return Error(kSessionExists);
    bool updating = false;
    const int code = velmora_svcmgr_is_being_updated(&updating);
    if (code != SVCMGR_ERROR_NONE) return Error(code);
    return updating;
  }

  // Subscriptions. Any number at a time; they need no connection.

  /** Hears what the C interface reports of the connection, in its own words. OnState knows more: not
   *  every loss and every return is reported (traps 7 to 10). */
  [[nodiscard]] Outcome<Token> OnConnection(Callable<void(ConnectionReport)> heard) {
    const auto core = core_;
    return core->Subscribe(core->connections, std::move(heard)).transform([&core](detail::Id id) {
      return Token(core, id);
    });
  }

  /** Hears how updates of the agents go, whoever asked for them. */
  [[nodiscard]] Outcome<Token> OnUpdateStatus(Callable<void(UpdateStatus)> heard) {
    const auto core = core_;
    return core->Subscribe(core->updates, std::move(heard)).transform([&core](detail::Id id) {
      return Token(core, id);
    });
  }
  /** Hears what happens to the device's models, whoever asked for it. */
  [[nodiscard]] Outcome<Token> OnModelStatus(Callable<void(ModelStatus)> heard) {
    const auto core = core_;
    return core->Subscribe(core->models, std::move(heard)).transform([&core](detail::Id id) {
      return Token(core, id);
    });
  }

  // Work on models.

  /**
   * Asks the agent to install or update models, and follows the work.
   *
   * @param models    An empty version stands for the newest.
   * @param progress  Called with each message of the agent, before `end`.
   * @param end       Called once.
   * @param options   How the work is followed.
   */
  ModelWork Update(std::vector<ModelName> models, Callable<void(const Progress&)> progress,
                   Done end, WorkOptions options = {}) {
    return Follow(velmora_svcmgr_ai_request_to_update, std::move(models), std::move(progress),
                  std::move(end), std::move(options));
  }
  /** The same for uninstallation. */
  ModelWork Uninstall(std::vector<ModelName> models, Callable<void(const Progress&)> progress,
                      Done end, WorkOptions options = {}) {
    return Follow(velmora_svcmgr_ai_request_to_uninstall, std::move(models), std::move(progress),
                  std::move(end), std::move(options));
  }

 private:
  Token Ask(detail::Query::Start start, ModelsDone done, Milliseconds limit) {
    return Add(std::make_shared<detail::Query>(std::move(start), std::move(done)), limit);
  }

  template <typename T>
  Token Block(detail::JobKind kind, Callable<Outcome<T>()> call, Callable<void(Outcome<T>)> done,
              Milliseconds limit) {
    return Add(std::make_shared<detail::Job<T>>(kind, std::move(call), std::move(done)), limit);
  }

  Token Add(const std::shared_ptr<detail::Entry>& entry, Milliseconds limit) {
    const auto core = core_;
    core->Add(entry, limit);
    return Token(core, entry->id);
  }

  ModelWork Follow(detail::Work::Request request, std::vector<ModelName> models,
                   Callable<void(const Progress&)> progress, Done end, WorkOptions options);

  const std::shared_ptr<detail::Core> core_;
};

inline ModelWork Session::Follow(detail::Work::Request request, std::vector<ModelName> models,
                                 Callable<void(const Progress&)> progress, Done end,
                                 WorkOptions options) {
  const auto core = core_;
  const auto tracker =
      std::make_shared<WorkTracker>(models.size(), core->Now(), std::move(options.rule));
  const auto work = std::make_shared<detail::Work>(request, std::move(models), std::move(progress),
                                                   std::move(end), options, tracker);
  // Without events there are still the messages.
  const auto key = std::make_shared<detail::Id>(0);
  const auto events = core->Subscribe<ModelStatus>(
      core->models, [key, weak = std::weak_ptr<detail::Core>(core)](ModelStatus status) {
        if (const auto session = weak.lock()) detail::Work::Event(*session, *key, status);
      });
  Token hearing(core, events.value_or(0));
  work->events = hearing.id_;
  core->Add(work, options.limit);
  hearing.Detach();
  *key = work->id;
  return {Token(core, work->id), tracker};
}

inline Token Session::License(TextDone done, Milliseconds limit) {
  return Block<std::string>(
      {true, true, false},
      []() -> Outcome<std::string> {
        char* raw = nullptr;
        const int code = velmora_svcmgr_get_license_fulltext(&raw);
        const Text text(raw);
        if (code != SVCMGR_ERROR_NONE) return Error(code);
        if (!text) return Error(kNoLicense);
        return text.str();
      },
      std::move(done), limit);
}

inline Token Session::AgentApiLevel(LevelDone done, Milliseconds limit) {
  return Block<int>(
      {true, true, false},
      []() -> Outcome<int> {
        int level = 0;
        const int code = velmora_svcmgr_get_agent_api_level(&level);
        if (code != SVCMGR_ERROR_NONE) return Error(code);
        return level;
      },
      std::move(done), limit);
}

inline Token Session::ClientApiLevel(LevelDone done, Milliseconds limit) {
  return Block<int>(
      {false, true, false},
      []() -> Outcome<int> {
        int level = 0;
        const int code = velmora_svcmgr_get_client_api_level(&level);
        if (code != SVCMGR_ERROR_NONE) return Error(code);
        return level;
      },
      std::move(done), limit);
}

namespace detail {

// Every failure of the request has the same code; with a connection it is the agent that refuses.
inline Outcome<void> OutcomeOfUpdate(int code) noexcept {
  if (code == SVCMGR_ERROR_NOT_CONNECTED) return Error(kNotTaken);
  if (code != SVCMGR_ERROR_NONE) return Error(code);
  return {};
}

}  // namespace detail

inline Token Session::RequestUpdate(Done done, Milliseconds limit) {
  return Block<void>(
      {true, false, true}, [] { return detail::OutcomeOfUpdate(velmora_svcmgr_request_update()); },
      std::move(done), limit);
}

inline Token Session::RequestUpdate(const std::vector<std::string>& agents, Done done,
                                    Milliseconds limit) {
  return Block<void>(
      {true, false, true},
      [names = agents]() -> Outcome<void> {
        const Outcome<AgentList> list = AgentList::Make(names);
        if (!list) return list.error();
        return detail::OutcomeOfUpdate(velmora_svcmgr_request_update_with_list(list->handle()));
      },
      std::move(done), limit);
}

}  // namespace layout_1
}  // namespace velmora::svcmgr

#undef VELMORA_SVCMGR_SHARED_

#endif  // VELMORA_SVCMGR_HPP
