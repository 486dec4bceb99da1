#include "bench/Corpus.h"

#include <array>
#include <cstdio>

namespace bench {

namespace {

constexpr std::array<const char*, 4> KINDS{"VMWARE", "ORACLE", "FILESYSTEM", "KUBERNETES"};
constexpr std::array<const char*, 10> SITES{"frankfurt-1",  "frankfurt-2",  "london-docklands", "paris-nord",
                                            "ashburn-east", "ashburn-west", "singapore",        "sydney",
                                            "tokyo",        "mumbai"};
constexpr std::array<const char*, 12> DEPARTMENTS{"finance", "payroll",   "research",  "engineering",
                                                  "legal",   "sales",     "support",   "procurement",
                                                  "archive", "marketing", "logistics", "web"};
constexpr std::array<const char*, 10> THINGS{"ledger",  "invoices", "orders",  "employees", "contracts",
                                             "backups", "reports",  "tickets", "inventory", "measurements"};
constexpr int HOSTS_PER_SITE = 100;
constexpr int INSTANCES_PER_HOST = 5;
constexpr int DATABASES_PER_INSTANCE = 10;
constexpr int TABLES_PER_DATABASE = 2;

template <class Choice>
std::string pick(const Choice& choices, std::mt19937& random) {
    return choices[random() % choices.size()];
}

std::string numbered(const std::string& name, int digits, int number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%0*d", digits, number);
    return name + text.data();
}

/// Makes the objects one after the other and stops at the given number.
class Generator {
public:
    Generator(std::size_t count, const std::function<void(const CorpusObject&)>& visit) : left_(count), visit_(visit) {}

    void run() {
        // Site by site over all kinds, so that a small corpus has the shape of a large one.
        for (int host = 0; host < HOSTS_PER_SITE && left_ > 0; ++host) {
            for (std::size_t site = 0; site < SITES.size(); ++site) {
                for (std::size_t kind = 0; kind < KINDS.size(); ++kind) {
                    addHost(static_cast<int>(kind * SITES.size() + site), KINDS[kind], SITES[site], host);
                }
            }
        }
    }

private:
    void add(const ObjectNamespace& name, bool inherit, std::vector<CorpusGrant> grants) {
        if (left_ > 0) {
            --left_;
            visit_({name, inherit, std::move(grants)});
        }
    }

    int anyRole() { return 1 + static_cast<int>(random_() % ROLES); }
    int anyOperation() { return static_cast<int>(random_() % OPERATIONS); }

    /// An administrator of the site who may do everything, and operators of the host.
    std::vector<CorpusGrant> hostGrants(int site) {
        std::vector<CorpusGrant> grants;
        for (int operation = 0; operation < OPERATIONS; ++operation) {
            grants.push_back({1 + site, operation, true, true});
        }
        const int operators = anyRole();
        for (int operation = 0; operation < 8; ++operation) {
            grants.push_back({operators, operation, true, true});
        }
        return grants;
    }

    /// One object in ten has grants of its own, one in fifty does not inherit.
    std::vector<CorpusGrant> occasionalGrants() {
        std::vector<CorpusGrant> grants;
        if (random_() % 10 == 0) {
            grants.push_back({anyRole(), 0, true, true});
            grants.push_back({anyRole(), anyOperation(), true, random_() % 2 == 0});
        }
        return grants;
    }
    void addInner(const ObjectNamespace& name) { add(name, random_() % 50 != 0, occasionalGrants()); }

    void addHost(int site, const std::string& kind, const std::string& siteName, int number) {
        const ObjectNamespace host("ASSETS", kind, siteName,
                                   numbered(pick(DEPARTMENTS, random_) + "-host-", 4, number));
        add(host, true, hostGrants(site));
        for (int instance = 0; instance < INSTANCES_PER_HOST && left_ > 0; ++instance) {
            addInstance(host | numbered("instance-", 2, instance));
        }
    }

    void addInstance(const ObjectNamespace& instance) {
        addInner(instance);
        for (int database = 0; database < DATABASES_PER_INSTANCE && left_ > 0; ++database) {
            addDatabase(instance | numbered(pick(THINGS, random_) + "_db", 2, database));
        }
    }

    void addDatabase(const ObjectNamespace& database) {
        addInner(database);
        for (int table = 0; table < TABLES_PER_DATABASE; ++table) {
            const ObjectNamespace schema = database | numbered(pick(THINGS, random_) + " ", 4, 2000 + table);
            addInner(schema);
            addInner(schema | (pick(DEPARTMENTS, random_) + ".full"));
        }
    }

    std::size_t left_;
    const std::function<void(const CorpusObject&)>& visit_;
    std::mt19937 random_{20261121};
};

}  // namespace

void forEachObject(std::size_t count, const std::function<void(const CorpusObject&)>& visit) {
    Generator(count, visit).run();
}

void forEachDeepObject(const std::function<void(const CorpusObject&)>& visit) {
    std::mt19937 random(20);
    for (int tree = 0; tree < 50; ++tree) {
        ObjectNamespace name("ASSETS", "FILESYSTEM", "archive", numbered("volume-", 2, tree));
        visit({name, true, {{1 + tree, 0, true, true}, {1 + tree, 1, true, true}}});
        while (name.str().size() < 250 && std::count(name.str().begin(), name.str().end(), '|') < 20) {
            name = name | pick(THINGS, random);
            visit({name, true, {}});
        }
        for (int leaf = 0; leaf < 20; ++leaf) {
            visit({name | numbered(pick(DEPARTMENTS, random) + "-", 2, leaf), true, {}});
        }
    }
}

std::set<int> userRoles(std::mt19937& random) {
    std::set<int> roles;
    while (roles.size() < ROLES_OF_A_USER) {
        roles.insert(1 + static_cast<int>(random() % ROLES));
    }
    return roles;
}

}  // namespace bench
