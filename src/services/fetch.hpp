// One GET of a service call whose answer is JSON, and the shape every completion-style call
// delivers its result in. Internal to the service clients.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "foundation/json_document.hpp"
#include "services/service_task_access.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::services {

/// Runs on the session queue with the decoded answer, or with the transport's error, or with
/// a CannotParseResponse error carrying the decoder's description. A missing request (a base
/// that is no URL) reports BadURL, also on the session queue.
using Answer = std::shared_ptr<const json::Document>;
using JSONHandler = std::function<void(Answer answer, std::optional<net::Error> error)>;

/// Starts the GET; its handler runs once. Returns the request's task (null for a missing
/// request), which may be cancelled: the handler then runs with a Cancelled error.
std::shared_ptr<net::DataTask> fetchJSON(std::optional<net::URLRequest> request,
                                         JSONHandler handler);

/// Whether a failed call's log line is written after its result block heard of the failure
/// or before it.
enum class FailureLog { AfterBlock, BeforeBlock };

/// The handler of a call with one result block, as a step of task: a cancelled call reads,
/// logs and calls nothing. A failure reaches block as (empty, error) and log(description), in
/// the order given; an answer goes to answer(document, block), which hands block its result.
/// block may be empty: a failure is then only logged, and answer still runs.
template <typename Block, typename Log, typename Read>
JSONHandler resultHandler(std::shared_ptr<SMServiceTask> task, Block block, Log log,
                          FailureLog order, Read answer) {
    return [task = std::move(task), block = std::move(block), log = std::move(log), order,
            answer = std::move(answer)](Answer root, std::optional<net::Error> error) mutable {
        Step step(*task);
        if (!step) {
            return;
        }
        // A copy: the block may drop whatever holds this handler.
        auto result = block;
        if (error) {
            if (order == FailureLog::BeforeBlock) {
                log(error->localizedDescription);
            }
            if (result) {
                result({}, error);
            }
            if (order == FailureLog::AfterBlock) {
                log(error->localizedDescription);
            }
            return;
        }
        answer(root, result);
    };
}

}  // namespace sorvan::services
