#pragma once

// Only an application that includes this header needs Asio (standalone, as
// Debian's libasio-dev ships it); <orvikm/orvikm.hpp> does not include it.
#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include <asio/error.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <orvikm/client.hpp>
#include <orviku/exception.hpp>

namespace orvikm {

/// Drives a client from an asio::io_context: waits on Client::eventHandle()
/// and on the time Client::processEvents() returns, and calls processEvents()
/// on the context's thread. Every callback of the client runs there. The
/// first pass is posted at construction, so it runs as soon as the context
/// does. Destroying the driver, or detach(), stops the watching; the client
/// and the context must outlive the driver. One driver per client at a time.
///
/// Threads: construct, detach and destroy the driver on the thread that runs
/// the context, or while the context is not running (a callback of the
/// client may detach or destroy it). Run the context on one thread:
/// processEvents() runs only there, one pass at a time. The client's send()
/// may be called from any thread; it wakes the driver. terminate() does not
/// stop the driver; detach() does.
///
/// Errors of the orviku family go to the error handler, and the driver goes
/// on. What processEvents() throws to its caller instead (a standard
/// exception of a callback or of a bad publication, after the handler has
/// had it as a GeneralException; the refusal while blockThreadForIO, check
/// or flush runs) leaves io_context::run(), as any handler's exception does
/// in asio. The driver then still watches, with its next pass due at once:
/// call run() again to go on (the client stays usable), or detach().
///
/// While it watches, the driver always has a wait pending, so run() does not
/// return for lack of work; once it is detached or destroyed, its pending
/// waits complete as cancelled and call nothing.
class AsioDriver {
public:
    /// Obtains the client's event handle and posts the first pass. Throws
    /// what Client::eventHandle() throws, and asio::system_error when the
    /// context cannot watch the handle (another driver of the client on the
    /// same context, say).
    AsioDriver(asio::io_context& context, Client& client,
               std::function<void(orviku::Exception&)> errorHandler)
        : _state(std::make_shared<State>(context, client, std::move(errorHandler))) {
        _state->handle.assign(client.eventHandle());
        asio::post(context, [state = _state] {
            if (!state->detached) {
                state->pass();
            }
        });
    }
    /// Not copyable: the pending waits belong to this driver.
    AsioDriver(const AsioDriver&) = delete;
    /// Not copyable: the pending waits belong to this driver.
    AsioDriver& operator=(const AsioDriver&) = delete;
    /// Detaches (see detach()).
    ~AsioDriver() { detach(); }

    /// Stops the watching: the pending waits are cancelled, and their
    /// handlers, when the context runs them, do nothing. From a callback, the
    /// pass in progress goes on dispatching what has already arrived, and no
    /// pass follows. The client's descriptor stays open (the client owns it),
    /// so another driver or loop may take the client over. A second call does
    /// nothing.
    void detach() {
        if (!_state) {
            return;
        }
        _state->detached = true;
        _state->timer.cancel();
        // release(), not close(): the descriptor is the client's.
        _state->handle.release();
        _state.reset();
    }

private:
    // What the pending handlers share with the driver: each holds it until it
    // has run, so a handler that runs after the driver is gone finds the
    // detached mark here, not a destroyed driver.
    struct State : std::enable_shared_from_this<State> {
        State(asio::io_context& context, Client& client,
              std::function<void(orviku::Exception&)> errorHandler)
            : client(client),
              errorHandler(std::move(errorHandler)),
              handle(context),
              timer(context) {}

        void pass() {
            std::chrono::milliseconds wait(0);
            try {
                wait = client.processEvents(errorHandler);
            } catch (...) {
                // A pass cut short may have left input unread that the handle
                // does not announce again: the next one comes at once.
                watch(std::chrono::milliseconds(0));
                throw;
            }
            watch(wait);
        }

        // Waits for the handle (unless a wait is already pending) and for
        // `wait`, whichever comes first; a callback may have detached.
        void watch(std::chrono::milliseconds wait) {
            if (detached) {
                return;
            }
            if (!handleWatched) {
                handleWatched = true;
                handle.async_wait(asio::posix::stream_descriptor::wait_read,
                                  [self = shared_from_this()](const asio::error_code& error) {
                                      self->handleWatched = false;
                                      if (!error && !self->detached) {
                                          self->pass();
                                      }
                                  });
            }
            // A timer that had already expired when it was set again runs its
            // handler with success, not as cancelled: the count tells it apart.
            const unsigned long arm = ++timerArms;
            timer.expires_after(wait);
            timer.async_wait([self = shared_from_this(), arm](const asio::error_code& error) {
                if (!error && !self->detached && arm == self->timerArms) {
                    self->pass();
                }
            });
        }

        Client& client;
        std::function<void(orviku::Exception&)> errorHandler;
        asio::posix::stream_descriptor handle;
        asio::steady_timer timer;
        bool detached = false;
        bool handleWatched = false;
        unsigned long timerArms = 0;
    };

    std::shared_ptr<State> _state;
};

}  // namespace orvikm
