#ifndef PUSHTOPICRESTORER_H
#define PUSHTOPICRESTORER_H

#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Gives a delivery back the topic it was published to on brokers that turn
// a '.' inside a topic level into a level separator. RabbitMQ's MQTT plugin
// does: it routes on AMQP routing keys ('/' becomes '.') and turns every
// '.' back into '/' on delivery, so a message published to
// "m/i/bob@im.test/n" arrives as "m/i/bob@im/test/n".
//
// The restorer knows the filters the client holds. A delivery that matches
// a held filter as it stands is left alone (every conformant broker's case);
// one that matches none, but matches a held filter whose dots are read as
// separators, takes that filter's levels back: "m/i/bob@im/test/n" under
// "m/i/bob@im.test/#" becomes "m/i/bob@im.test/n". Only filters without
// wildcards, or with a single "#" at the end, are known this way; the part
// a "#" matched is passed on as delivered. Each lookup costs one hash
// lookup per level of the delivered topic.
//
// Thread-safe: filters change on the owner's threads, deliveries are
// restored on the network thread.
class PushTopicRestorer {
public:
    void hold(const std::vector<std::string> &filters);
    void release(const std::vector<std::string> &filters);
    // True when `topic` was changed back.
    bool restore(std::string &topic) const;

private:
    struct Known {
        std::string literal; // the filter without its trailing "/#"
        bool tail;           // the filter ends in "#"
    };
    // A filter split into its literal part; false for one that cannot be known.
    static bool split(const std::string &filter, Known &known);
    bool holdsAsIs(const std::string &topic) const;

    mutable std::mutex m_mutex;
    std::unordered_map<std::string, bool> m_held;    // literal -> tail, every known filter
    std::unordered_map<std::string, Known> m_dotted; // literal with '.' as '/' -> the filter, filters with a '.'
};

#endif // PUSHTOPICRESTORER_H
