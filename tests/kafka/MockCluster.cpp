// A Kafka cluster of three brokers inside one process, which librdkafka brings with it, and a
// consumer that writes down what arrives. For tests that take brokers away and bring them back.
//
//   MockCluster TOPIC PARTITIONS OUTPUT
//
// Prints the brokers' addresses in one line, then obeys its standard input, line by line, until
// that ends:
//   down ID          the broker, or all for -1, closes its connections and takes none
//   up ID
//   leader ID        the broker leads every partition from now on
//   error API CODE N the next N requests of that kind are answered with that error
// and answers "ok" or "failed". Each message is a line in OUTPUT: partition, key, message.

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::cerr << what << '\n';
  std::exit(1);
}

rd_kafka_t* MakeClient(rd_kafka_type_t type, const std::string& brokers) {
  rd_kafka_conf_t* const settings = rd_kafka_conf_new();
  char problem[512] = {};
  if (!brokers.empty()) {
    rd_kafka_conf_set(settings, "bootstrap.servers", brokers.c_str(), problem, sizeof problem);
    rd_kafka_conf_set(settings, "group.id", "test", problem, sizeof problem);
    rd_kafka_conf_set(settings, "reconnect.backoff.max.ms", "200", problem, sizeof problem);
  }
  rd_kafka_conf_set_log_cb(settings, nullptr);
  rd_kafka_t* const client = rd_kafka_new(type, settings, problem, sizeof problem);
  if (client == nullptr) {
    Fail(problem);
  }
  return client;
}

class Consumer {
 public:
  Consumer(const std::string& brokers, const std::string& topic, int partitions,
           const std::string& output)
      : m_client(MakeClient(RD_KAFKA_CONSUMER, brokers)), m_output(output, std::ios::binary) {
    rd_kafka_poll_set_consumer(m_client);
    rd_kafka_topic_partition_list_t* const assigned = rd_kafka_topic_partition_list_new(partitions);
    for (int i = 0; i < partitions; ++i) {
      rd_kafka_topic_partition_list_add(assigned, topic.c_str(), i)->offset =
          RD_KAFKA_OFFSET_BEGINNING;
    }
    rd_kafka_assign(m_client, assigned);
    rd_kafka_topic_partition_list_destroy(assigned);
    m_thread = std::thread(&Consumer::Run, this);
  }

  ~Consumer() {
    m_stop = true;
    m_thread.join();
    rd_kafka_consumer_close(m_client);
    rd_kafka_destroy(m_client);
  }

  Consumer(const Consumer&) = delete;
  Consumer& operator=(const Consumer&) = delete;

 private:
  void Run() {
    while (!m_stop) {
      rd_kafka_message_t* const message = rd_kafka_consumer_poll(m_client, 50);
      if (message == nullptr) {
        m_output.flush();
        continue;
      }
      if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
        m_output << message->partition << '\t';
        m_output.write(static_cast<const char*>(message->key),
                       static_cast<std::streamsize>(message->key_len));
        m_output << '\t';
        m_output.write(static_cast<const char*>(message->payload),
                       static_cast<std::streamsize>(message->len));
        m_output << '\n';
      }
      rd_kafka_message_destroy(message);
    }
  }

  rd_kafka_t* const m_client;
  std::ofstream m_output;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

bool Obey(rd_kafka_mock_cluster_t* cluster, const std::string& topic, int partitions,
          const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  int number = 0;
  words >> verb >> number;
  rd_kafka_resp_err_t error = RD_KAFKA_RESP_ERR_NO_ERROR;
  if (verb == "down") {
    error = rd_kafka_mock_broker_set_down(cluster, number);
  } else if (verb == "up") {
    error = rd_kafka_mock_broker_set_up(cluster, number);
  } else if (verb == "leader") {
    for (int i = 0; i < partitions; ++i) {
      error = rd_kafka_mock_partition_set_leader(cluster, topic.c_str(), i, number);
    }
  } else if (verb == "error") {
    int code = 0;
    std::size_t count = 0;
    words >> code >> count;
    const std::vector<rd_kafka_resp_err_t> errors(count, static_cast<rd_kafka_resp_err_t>(code));
    rd_kafka_mock_push_request_errors_array(cluster, static_cast<std::int16_t>(number), count,
                                            errors.data());
  } else {
    return false;
  }
  return !words.fail() && error == RD_KAFKA_RESP_ERR_NO_ERROR;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    Fail("MockCluster TOPIC PARTITIONS OUTPUT");
  }
  const std::string topic = argv[1];
  const int partitions = std::atoi(argv[2]);
  rd_kafka_t* const host = MakeClient(RD_KAFKA_PRODUCER, "");
  rd_kafka_mock_cluster_t* const cluster = rd_kafka_mock_cluster_new(host, 3);
  if (cluster == nullptr || rd_kafka_mock_topic_create(cluster, topic.c_str(), partitions, 3) !=
                                RD_KAFKA_RESP_ERR_NO_ERROR) {
    Fail("there is no cluster");
  }
  const std::string brokers = rd_kafka_mock_cluster_bootstraps(cluster);
  {
    const Consumer consumer(brokers, topic, partitions, argv[3]);
    std::cout << brokers << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
      std::cout << (Obey(cluster, topic, partitions, line) ? "ok" : "failed") << std::endl;
    }
  }
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
  return 0;
}
