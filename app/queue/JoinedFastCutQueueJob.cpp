#include "app/queue/JoinedFastCutQueueJob.hpp"

#include "app/queue/ConversionQueueJob.hpp"

namespace tessarin::app {

std::filesystem::path JoinedFastCutQueueJob::run(const Callbacks& callbacks) {
    return join_.run(engineCallbacks(callbacks));
}

}  // namespace tessarin::app
