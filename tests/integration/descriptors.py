"""More clients than the agent has descriptors for."""

import socket
import unittest

import support


class Descriptors(support.AgentTest):
    def test_running_out_of_descriptors_is_survived(self):
        config = self.configure(self.stream(support.SYSLOG_SOURCE,
                                            "{ type: file, path: ./out.log }"))
        command = f'ulimit -n 64; exec "{support.AGENT}" run --config "{config}" --modules "$0"'
        agent = self.start(config, arguments=["sh", "-c", command, support.MODULES])
        port = agent.port()
        crowd = [socket.create_connection(("127.0.0.1", port), timeout=support.LIMIT)
                 for _ in range(100)]
        agent.wait_for("could not be accepted")
        for connection in crowd:
            connection.close()
        support.send(port, b"there is room again\n")
        output = self.directory / "out.log"
        support.wait_until(lambda: output.exists() and output.read_bytes(), "the event")
        self.assertEqual(output.read_bytes(), b"there is room again\n")
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
