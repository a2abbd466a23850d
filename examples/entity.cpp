// The framework by itself, without any daemon: an entity with two attributes, a reactor that
// follows it, and access to the attributes by name.

#include <iostream>

#include <Lumo/AttrTable.h>
#include <Lumo/Entity.h>

namespace Greenhouse {

// A sensor with a limit; it tells its reactors when either changes.
class Sensor : public Lumo::Entity {
  LUMO_OBJECT(Sensor)

 public:
  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    Lumo::Ptr<const Sensor> notifier() const {
      return static_cast<const Sensor*>(lumoRawNotifier());
    }
    virtual void onDegrees() {}
    virtual void onLimit() {}

   protected:
    explicit NotifieeConst(const Lumo::Ptr<const Sensor>& sensor) { startFollowing(sensor); }
  };

  explicit Sensor(Lumo::Name name) : name_(name) {}
  Lumo::Name name() const override { return name_; }
  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }

  U32 degrees() const { return degrees_; }
  void degreesIs(U32 degrees) { set(degrees_, degrees, &NotifieeConst::onDegrees); }
  U32 limit() const { return limit_; }
  void limitIs(U32 limit) { set(limit_, limit, &NotifieeConst::onLimit); }

 private:
  // The pattern of every mutator: version step, compare, store, notify.
  void set(U32& attribute, U32 value, void (NotifieeConst::*handler)()) {
    fwkEntityVersionInc();
    if (attribute == value) return;
    attribute = value;
    assertNoReadsPreserved();
    notifiees_.notify(handler);
  }

  Lumo::Name name_;
  U32 degrees_ = 20;
  U32 limit_ = 30;
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

Lumo::Ptr<Sensor> sensorFactory(Lumo::Name name) {
  return Lumo::allocate<Sensor>(name);
}

constexpr auto attributes =
    Lumo::attrTable(Lumo::readOnly<Sensor, &Sensor::name>(257, "name"),
                    Lumo::readWrite<Sensor, &Sensor::degrees, &Sensor::degreesIs>(258, "degrees"),
                    Lumo::readWrite<Sensor, &Sensor::limit, &Sensor::limitIs>(259, "limit"));
constinit const Lumo::LumoType Sensor::_lumoType("Greenhouse::Sensor", attributes,
                                                 Lumo::genericFunctions<Sensor, &sensorFactory>());
constinit const Lumo::LumoType Sensor::NotifieeConst::_lumoType(
    "Greenhouse::Sensor::NotifieeConst");

// Warns when the temperature passes the limit.
class Warden : public Sensor::NotifieeConst {
 public:
  explicit Warden(const Lumo::Ptr<const Sensor>& sensor) : NotifieeConst(sensor) {}
  void onDegrees() override {
    std::cout << notifier()->name() << " is at " << notifier()->degrees() << " degrees\n";
    if (notifier()->degrees() > notifier()->limit()) std::cout << "  above its limit!\n";
  }
};

}  // namespace Greenhouse

int main() {
  Lumo::typeNodeIs(&Greenhouse::Sensor::_lumoType);

  const Lumo::GenericValue made = Lumo::genericNew("Greenhouse::Sensor", "tomatoes");
  const Lumo::GenericIf sensor =
      Lumo::genericIf(Lumo::GenericTraits<Lumo::Ptr<Lumo::Entity>>::unwrap(made));
  const auto warden = Lumo::allocate<Greenhouse::Warden>(
      Lumo::GenericTraits<Lumo::Ptr<Greenhouse::Sensor>>::unwrap(made));

  sensor.write("degrees", 25);
  sensor.write("degrees", 35);
  for (const Lumo::LumoAttr& attr : sensor.type().attributes()) {
    std::cout << attr.name() << " (" << attr.typeName() << "): " << sensor.read(attr.name()).strep()
              << '\n';
  }
}
