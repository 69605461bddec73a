// The view draws its controls itself, so Qt knows none of them: each gets an
// interface of its own here, read from the view's layout and state whenever
// asked, so nothing has to be kept in step.
#include "view/HUDAccessible.h"

#include "view/HUDView.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QPointer>
#include <map>

namespace {

enum class Kind {
    tagField,
    addTag,
    zone,
    progress,
    intervals,
    levels,
    log,
    interval,
    level,
    entry
};

// The view's own children, in reading order; segments and entries are theirs.
constexpr Kind kTop[] = {Kind::tagField,  Kind::addTag, Kind::zone, Kind::progress,
                         Kind::intervals, Kind::levels, Kind::log};
constexpr int kTopCount = static_cast<int>(std::size(kTop));
// Where the segments start among the keyboard's controls (HUDLayout::focusOrder).
constexpr int kFirstSegment = 3;

class Root;

// One drawn element: `index` is the segment's or the log entry's.
class Element final : public QAccessibleInterface,
                      public QAccessibleActionInterface,
                      public QAccessibleValueInterface {
public:
    Element(HUDView* view, const Root* root, Kind kind, int index)
        : m_view(view)
        , m_root(root)
        , m_kind(kind)
        , m_index(index) {}

    bool isValid() const override;
    QObject* object() const override { return nullptr; }
    QWindow* window() const override;
    QAccessibleInterface* childAt(int x, int y) const override;
    QAccessibleInterface* parent() const override;
    QAccessibleInterface* child(int index) const override;
    int childCount() const override;
    int indexOfChild(const QAccessibleInterface* child) const override;
    QString text(QAccessible::Text t) const override;
    void setText(QAccessible::Text, const QString&) override {}
    QRect rect() const override;
    QAccessible::Role role() const override;
    QAccessible::State state() const override;
    void* interface_cast(QAccessible::InterfaceType type) override;

    QStringList actionNames() const override;
    void doAction(const QString& name) override;
    QStringList keyBindingsForAction(const QString&) const override { return {}; }

    QVariant currentValue() const override { return m_view->state().progress.done; }
    void setCurrentValue(const QVariant&) override {}
    QVariant maximumValue() const override { return m_view->state().progress.total; }
    QVariant minimumValue() const override { return 0; }
    QVariant minimumStepSize() const override { return 1; }

    Kind kind() const { return m_kind; }
    int index() const { return m_index; }
    // The keyboard control this is, if it is one.
    std::optional<int> control() const;

private:
    QRectF drawn() const;
    const HUDLayout::Segments* segments() const;

    QPointer<HUDView> m_view;
    const Root* m_root;
    Kind m_kind;
    int m_index;
};

// The view itself; it makes each element once and keeps it while the view lives.
class Root final : public QAccessibleWidget {
public:
    explicit Root(HUDView* view)
        : QAccessibleWidget(view, QAccessible::Client, QStringLiteral("ODRAVEX Zelkor")) {}
    ~Root() override {
        for (const auto& [key, id] : m_made)
            QAccessible::deleteAccessibleInterface(id);
    }

    HUDView* view() const { return static_cast<HUDView*>(widget()); }

    QAccessibleInterface* element(Kind kind, int index = 0) const {
        const auto key = std::pair(kind, index);
        if (const auto found = m_made.find(key); found != m_made.end())
            return QAccessible::accessibleInterface(found->second);
        auto* made = new Element(view(), this, kind, index);
        m_made[key] = QAccessible::registerAccessibleInterface(made);
        return made;
    }
    // The element that is keyboard control `control`.
    QAccessibleInterface* forControl(int control) const {
        if (control < kFirstSegment)
            return element(kTop[control]);
        const int segment = control - kFirstSegment;
        const int intervals = static_cast<int>(view()->layout().controls.intervals.rects.size());
        return segment < intervals ? element(Kind::interval, segment)
                                   : element(Kind::level, segment - intervals);
    }

    int childCount() const override { return kTopCount; }
    QAccessibleInterface* child(int index) const override {
        return index >= 0 && index < kTopCount ? element(kTop[index]) : nullptr;
    }
    int indexOfChild(const QAccessibleInterface* child) const override {
        for (int i = 0; i < kTopCount; ++i)
            if (element(kTop[i]) == child)
                return i;
        return -1;
    }
    QAccessibleInterface* childAt(int x, int y) const override {
        for (int i = 0; i < kTopCount; ++i)
            if (QAccessibleInterface* c = child(i);
                !c->state().invisible && c->rect().contains(x, y))
                return c;
        return nullptr;
    }
    QAccessibleInterface* focusChild() const override {
        const std::optional<int> focused = view()->focused();
        return focused && view()->hasFocus() ? forControl(*focused) : nullptr;
    }

private:
    mutable std::map<std::pair<Kind, int>, QAccessible::Id> m_made;
};

bool Element::isValid() const {
    if (!m_view)
        return false;
    return m_kind != Kind::entry || m_index < static_cast<int>(m_view->state().log.size());
}

QWindow* Element::window() const {
    return m_root->window();
}

std::optional<int> Element::control() const {
    switch (m_kind) {
    case Kind::tagField:
        return 0;
    case Kind::addTag:
        return 1;
    case Kind::zone:
        return 2;
    case Kind::interval:
        return kFirstSegment + m_index;
    case Kind::level:
        return kFirstSegment + static_cast<int>(m_view->layout().controls.intervals.rects.size()) +
               m_index;
    default:
        return std::nullopt;
    }
}

const HUDLayout::Segments* Element::segments() const {
    const HUDLayout::Controls& c = m_view->layout().controls;
    if (m_kind == Kind::intervals || m_kind == Kind::interval)
        return &c.intervals;
    if (m_kind == Kind::levels || m_kind == Kind::level)
        return &c.levels;
    return nullptr;
}

QAccessibleInterface* Element::parent() const {
    if (m_kind == Kind::interval)
        return m_root->element(Kind::intervals);
    if (m_kind == Kind::level)
        return m_root->element(Kind::levels);
    if (m_kind == Kind::entry)
        return m_root->element(Kind::log);
    return const_cast<Root*>(m_root);
}

int Element::childCount() const {
    if (m_kind == Kind::intervals || m_kind == Kind::levels)
        return static_cast<int>(segments()->rects.size());
    if (m_kind == Kind::log)
        return static_cast<int>(m_view->state().log.size());
    return 0;
}

QAccessibleInterface* Element::child(int index) const {
    if (index < 0 || index >= childCount())
        return nullptr;
    const Kind kind = m_kind == Kind::intervals ? Kind::interval
                      : m_kind == Kind::levels  ? Kind::level
                                                : Kind::entry;
    return m_root->element(kind, index);
}

int Element::indexOfChild(const QAccessibleInterface* child) const {
    for (int i = 0; i < childCount(); ++i)
        if (this->child(i) == child)
            return i;
    return -1;
}

QAccessibleInterface* Element::childAt(int x, int y) const {
    for (int i = 0; i < childCount(); ++i)
        if (QAccessibleInterface* c = child(i); c->rect().contains(x, y))
            return c;
    return nullptr;
}

// Where it is drawn, in the view's own coordinates; empty when it is not.
QRectF Element::drawn() const {
    const HUDLayout::Layout& l = m_view->layout();
    switch (m_kind) {
    case Kind::tagField:
        return l.tagRow.field;
    case Kind::addTag:
        return l.tagRow.addTag.outline;
    case Kind::zone:
        return l.zone.rect;
    case Kind::progress:
        return l.zone.cells.front().united(l.zone.cells.back());
    case Kind::intervals:
    case Kind::levels:
        return segments()->outline;
    case Kind::interval:
    case Kind::level:
        return segments()->rects.at(static_cast<std::size_t>(m_index));
    case Kind::log:
        return QRectF(QPointF(l.log.left, l.log.heading.line - HUDLayout::kLogLineStep / 2),
                      QPointF(l.log.right, l.controls.rule.y1()));
    case Kind::entry: {
        const auto count = static_cast<long long>(m_view->state().log.size());
        const long long row = m_index - HUDLayout::firstShownLogLine(count);
        if (row < 0)
            return {};
        const double middle = l.log.firstLine + static_cast<double>(row) * HUDLayout::kLogLineStep;
        return QRectF(QPointF(l.log.left, middle - HUDLayout::kLogLineStep / 2),
                      QPointF(l.log.right, middle + HUDLayout::kLogLineStep / 2));
    }
    }
    return {};
}

QRect Element::rect() const {
    const QRectF r = drawn();
    if (r.isEmpty())
        return {};
    const double s = m_view->scale();
    return QRectF(r.topLeft() * s, r.size() * s)
        .toAlignedRect()
        .translated(m_view->mapToGlobal(QPoint(0, 0)));
}

QAccessible::Role Element::role() const {
    switch (m_kind) {
    case Kind::tagField:
        return QAccessible::ButtonMenu;
    case Kind::addTag:
    case Kind::zone:
        return QAccessible::PushButton;
    case Kind::progress:
        return QAccessible::ProgressBar;
    case Kind::intervals:
    case Kind::levels:
        return QAccessible::Grouping;
    case Kind::interval:
    case Kind::level:
        return QAccessible::RadioButton;
    case Kind::log:
        return QAccessible::List;
    case Kind::entry:
        return QAccessible::ListItem;
    }
    return QAccessible::NoRole;
}

QString Element::text(QAccessible::Text t) const {
    const HUDLayout::Layout& l = m_view->layout();
    const HUDView::State& s = m_view->state();
    if (t == QAccessible::Value) {
        if (m_kind == Kind::tagField)
            return m_view->content().tagName.value_or(l.tagRow.text.string);
        if (m_kind == Kind::progress)
            return QString::asprintf("%02lld/%02lld", s.progress.done, s.progress.total);
        return {};
    }
    // AT-SPI carries no value text: the clip and the counter are said as descriptions.
    if (t == QAccessible::Description)
        return m_kind == Kind::zone ? l.zone.hint.string : text(QAccessible::Value);
    if (t != QAccessible::Name)
        return {};
    switch (m_kind) {
    case Kind::tagField:
        return l.tagRow.label.string;
    case Kind::addTag:
        return l.tagRow.addTag.labels.front().string;
    case Kind::zone:
        return l.zone.headline.string;
    case Kind::progress:
        return l.zone.processing.string;
    case Kind::intervals:
        return l.controls.intervalLabel.string;
    case Kind::levels:
        return l.controls.levelLabel.string;
    case Kind::interval:
    case Kind::level:
        return segments()->labels.at(static_cast<std::size_t>(m_index)).string;
    case Kind::log:
        return l.log.heading.string;
    case Kind::entry: {
        const LogLine& line = s.log.at(static_cast<std::size_t>(m_index));
        return line.text + QStringLiteral(", ") + line.status;
    }
    }
    return {};
}

QAccessible::State Element::state() const {
    QAccessible::State state;
    const bool busy = m_view->state().busy;
    if (const std::optional<int> mine = control()) {
        state.focusable = true;
        state.focused = m_view->hasFocus() && m_view->focused() == mine;
        state.disabled = busy;
    }
    if (m_kind == Kind::tagField)
        state.hasPopup = true;
    if (m_kind == Kind::interval || m_kind == Kind::level) {
        state.checkable = true;
        state.checked = segments()->selected == m_index;
    }
    if (m_kind == Kind::progress)
        state.invisible = !busy;
    if (m_kind == Kind::entry) {
        state.readOnly = true;
        state.invisible = drawn().isEmpty();
    }
    return state;
}

void* Element::interface_cast(QAccessible::InterfaceType type) {
    if (type == QAccessible::ActionInterface && control())
        return static_cast<QAccessibleActionInterface*>(this);
    if (type == QAccessible::ValueInterface && m_kind == Kind::progress)
        return static_cast<QAccessibleValueInterface*>(this);
    return nullptr;
}

QStringList Element::actionNames() const {
    return {m_kind == Kind::tagField ? showMenuAction() : pressAction(), setFocusAction()};
}

void Element::doAction(const QString& name) {
    const std::optional<int> mine = control();
    if (!mine || !m_view)
        return;
    if (name == setFocusAction()) {
        m_view->setFocus(Qt::OtherFocusReason);
        return;
    }
    if (name == pressAction() || name == showMenuAction())
        m_view->activate(*mine);
}

QAccessibleInterface* factory(const QString& className, QObject* object) {
    if (className == QLatin1String("HUDView") && object && object->isWidgetType())
        return new Root(static_cast<HUDView*>(object));
    return nullptr;
}

} // namespace

namespace HUDAccessible {

void install() {
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    (void)installed;
}

namespace {

// The view's own interface, or none when no assistive technology listens.
const Root* listened(HUDView& view) {
    if (!QAccessible::isActive())
        return nullptr;
    return static_cast<const Root*>(QAccessible::queryAccessibleInterface(&view));
}

} // namespace

void focusMoved(HUDView& view, int control) {
    if (const Root* root = listened(view)) {
        QAccessibleEvent event(root->forControl(control), QAccessible::Focus);
        QAccessible::updateAccessibility(&event);
    }
}

void progressChanged(HUDView& view) {
    if (const Root* root = listened(view)) {
        QAccessibleValueChangeEvent event(root->element(Kind::progress),
                                          view.state().progress.done);
        QAccessible::updateAccessibility(&event);
    }
}

void tagChanged(HUDView& view) {
    if (const Root* root = listened(view)) {
        QAccessibleEvent event(root->element(Kind::tagField), QAccessible::ValueChanged);
        QAccessible::updateAccessibility(&event);
    }
}

} // namespace HUDAccessible
