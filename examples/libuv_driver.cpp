// Sends messages from a worker thread and exits once the node has
// acknowledged every one, with the client driven from a libuv loop: a
// uv_poll_t watches the client's event handle and a uv_timer_t the wait that
// processEvents() returns. A driver for any other loop is the same three
// steps: watch a descriptor, run a pass, arm a timer.
//
//   libuv_driver --listener-port P --dispenser-port P [--route news]
//                [--count 5] [--timeout 10]
#include <uv.h>

#include <orvikm/orvikm.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

#include "example_support.hpp"

namespace {

// The client and the two libuv handles that drive it; each handle's data
// points here. Used on the loop's thread only.
struct UvDriver {
    orvikm::Client& client;
    std::function<void(orviku::Exception&)> errorHandler;
    bool stopRequested = false;
    bool failed = false;
    uv_poll_t handle{};
    uv_timer_t timer{};
};

uv_handle_t* asHandle(void* handle) {
    return static_cast<uv_handle_t*>(handle);
}

// uv_run returns once the closed handles were the last ones active. The
// client's descriptor stays open: the client owns it.
void stop(UvDriver& driver) {
    if (!uv_is_closing(asHandle(&driver.handle))) {
        uv_close(asHandle(&driver.handle), nullptr);
        uv_close(asHandle(&driver.timer), nullptr);
    }
}

void onTimer(uv_timer_t* timer);

void pass(UvDriver& driver) {
    std::chrono::milliseconds wait(0);
    try {
        wait = driver.client.processEvents(driver.errorHandler);
    } catch (const std::exception& error) {
        // A callback's own exception, or a publication that did not parse. No
        // exception may cross libuv's C frames: it ends this example here.
        std::cerr << "libuv_driver: " << error.what() << std::endl;
        driver.failed = true;
        driver.stopRequested = true;
    }
    if (driver.stopRequested) {
        stop(driver);
        return;
    }
    uv_timer_start(&driver.timer, onTimer, static_cast<std::uint64_t>(wait.count()), 0);
}

void onReadable(uv_poll_t* handle, int, int) {
    pass(*static_cast<UvDriver*>(handle->data));
}

void onTimer(uv_timer_t* timer) {
    pass(*static_cast<UvDriver*>(timer->data));
}

}  // namespace

int main(int argc, char** argv) {
    const example::Args args(argc, argv,
                             "usage: libuv_driver --listener-port P --dispenser-port P "
                             "[--route R] [--count N] [--timeout SECONDS]\n");
    const int count = args.number("count", 5);
    const std::string route = args.text("route", "news");

    orvikm::Client client("example-libuv-driver", args.requiredNumber("listener-port"),
                          args.requiredNumber("dispenser-port"), {});

    uv_loop_t loop;
    uv_loop_init(&loop);
    UvDriver driver{client, nullptr};
    driver.errorHandler = [&driver](orviku::Exception& error) {
        std::cerr << "libuv_driver: " << error.describe() << std::endl;
        driver.failed = true;
        driver.stopRequested = true;
    };
    driver.handle.data = &driver;
    driver.timer.data = &driver;
    // The handle is level-triggered, as uv_poll_t watches: readable until a
    // pass has done the work it announces.
    uv_poll_init(&loop, &driver.handle, client.eventHandle());
    uv_poll_start(&driver.handle, UV_READABLE, onReadable);
    uv_timer_init(&loop, &driver.timer);
    // The first pass at once: work may be due that the handle does not show.
    uv_timer_start(&driver.timer, onTimer, 0, 0);

    // Unreferenced, the deadline does not keep uv_run going once the driver
    // has stopped.
    uv_timer_t deadline;
    uv_timer_init(&loop, &deadline);
    uv_unref(asHandle(&deadline));
    deadline.data = &driver;
    uv_timer_start(
        &deadline,
        [](uv_timer_t* timer) {
            auto& driver = *static_cast<UvDriver*>(timer->data);
            std::cerr << "libuv_driver: the deadline passed" << std::endl;
            driver.failed = true;
            stop(driver);
        },
        static_cast<std::uint64_t>(args.number("timeout", 10)) * 1000, 0);

    // send() only queues, from any thread; the acknowledgement callbacks run
    // on the loop's thread, inside a pass.
    std::atomic<int> acknowledged{0};
    std::thread worker([&] {
        for (int i = 1; i <= count; ++i) {
            const std::string text = "hello #" + std::to_string(i);
            orvikm::Payload payload(static_cast<unsigned>(text.size()), "text/plain");
            text.copy(payload.getBuffer(), text.size());
            client.send(
                std::move(payload), {route}, std::chrono::seconds(30),
                [&] {
                    if (++acknowledged == count) {
                        driver.stopRequested = true;
                    }
                },
                orvikm::Message::AckMode::ByNode);
        }
    });

    uv_run(&loop, UV_RUN_DEFAULT);
    worker.join();
    uv_close(asHandle(&deadline), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);

    std::cout << "libuv_driver: " << acknowledged << " of " << count
              << " messages acknowledged along route " << route << std::endl;
    return !driver.failed && acknowledged == count ? 0 : 1;
}
