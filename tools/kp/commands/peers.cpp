// kp peers: every endpoint of the mesh, without joining or touching it.
#include "commands/commands.h"
#include "common/device/endpoints.h"
#include "common/device/peer_json.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "kp.h"
#include "output/output.h"
#include "output/row_format.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>

namespace kp::tool {

namespace {

constexpr std::size_t kColumns = 8;

using Cells = std::array<std::string, kColumns>;

bool needs_attention(const Endpoint &endpoint)
{
    return endpoint.liveness == Liveness::dead || endpoint.is_stopped ||
           endpoint.unread.value_or(0) > kManyUnread;
}

Cells cells_of(const Endpoint &endpoint)
{
    const bool known = !endpoint.owners.empty();
    const Process owner = known ? endpoint.owners.front() : Process();
    return {escaped(endpoint.file.name),
            liveness_name(endpoint.liveness),
            known ? std::to_string(owner.pid) : "-",
            known ? owner.program : "-",
            known ? owner.user : user_name(endpoint.file.owner),
            std::to_string(endpoint.connections) + "/" + std::to_string(KP_MAX_PEERS),
            endpoint.unread ? std::to_string(*endpoint.unread) : "-",
            note_of(endpoint)};
}

void print_table(const Mesh &mesh)
{
    std::vector<Cells> lines = {
        {"NAME", "STATE", "PID", "PROGRAM", "USER", "CONNECTIONS", "UNREAD", ""}};
    for (const Endpoint &endpoint : mesh.endpoints)
        lines.push_back(cells_of(endpoint));
    std::array<std::size_t, kColumns> widths{};
    for (const Cells &cells : lines)
        for (std::size_t column = 0; column < kColumns; ++column)
            widths[column] = std::max(widths[column], display_width(cells[column]));
    for (std::size_t row = 0; row < lines.size(); ++row) {
        std::string line;
        for (std::size_t column = 0; column + 1 < kColumns; ++column)
            line += (column ? "  " : "") + (column == 2 || column > 4
                                                ? padded_left(lines[row][column], widths[column])
                                                : padded(lines[row][column], widths[column]));
        line += lines[row].back().empty() ? "" : "  " + lines[row].back();
        const bool alarming = row > 0 && needs_attention(mesh.endpoints[row - 1]);
        output().line(row == 0   ? colored(line, Color::bold)
                      : alarming ? colored(line, Color::red)
                                 : line);
    }
}

int run_peers(bool json)
{
    const Mesh mesh = look_at_mesh();
    if (mesh.endpoints.empty() && mesh.error != 0 && mesh.error != ENOENT)
        return complain(system_problem(kEndpointRoot, mesh.error));
    if (mesh.endpoints.empty())
        return kNothing;
    if (json)
        for (const Endpoint &endpoint : mesh.endpoints)
            output().write(json_line(peer_json(endpoint)));
    else
        print_table(mesh);
    const std::size_t hidden = mesh.descriptors.unreadable.size();
    if (hidden > 0 && !json)
        complain(hidden_processes_text(hidden));
    return kDone;
}

} // namespace

void add_peers(Commands &commands)
{
    const auto json = std::make_shared<bool>(false);
    Command command = commands.add("peers", "every endpoint, its process and its connections",
                                   [json] { return run_peers(*json); });
    command.add_flag("-j,--json", *json, "one JSON object a line");
}

} // namespace kp::tool
